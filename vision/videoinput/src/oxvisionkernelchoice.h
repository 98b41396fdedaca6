// The choice among the variants of one family of row kernels: the plain integer reference (the
// oracle of every faster variant), the variant chosen for this processor, and a test hook that
// forces the reference.
#pragma once

#include <atomic>

namespace OX {

template <class Kernels>
class KernelChoice {
 public:
  explicit KernelChoice(const Kernels& pReference) : fReference(pReference) {}
  const Kernels& reference() const { return fReference; }
  const Kernels& active() const { return fForceReference ? fReference : selected(); }
  void forceReference(bool pForce) { fForceReference = pForce; }

 private:
  // The fastest variant for this processor. Only the reference exists so far.
  const Kernels& selected() const { return fReference; }

  const Kernels& fReference;
  std::atomic<bool> fForceReference{false};
};

}  // namespace OX
