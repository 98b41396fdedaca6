// The choice among the variants of one family of row kernels: the plain integer reference (the
// oracle of every faster variant), the vector variants the processor can run, the one chosen
// for this processor, and a test hook that forces any of them.
#pragma once

#include <atomic>
#include <vector>

namespace OX {

enum class KernelVariant { kAutomatic, kReference, kSse41, kAvx2, kAvx512 };

// Whether this processor (and its operating system, for the wide registers) runs the variant.
inline bool kernelVariantSupported(KernelVariant pVariant) {
  // Read once: the library may be loaded before the compiler's own processor probe has run.
  static const bool sSse41 = (__builtin_cpu_init(), __builtin_cpu_supports("sse4.1") != 0);
  static const bool sAvx2 = sSse41 && __builtin_cpu_supports("avx2") != 0;
  // The compiler's probe reports AVX-512 only when XGETBV shows that the operating system saves
  // the mask and 64-byte registers; a processor that hides it (as valgrind's does) gets AVX2.
  static const bool sAvx512 = sAvx2 && __builtin_cpu_supports("avx512f") != 0 &&
                              __builtin_cpu_supports("avx512bw") != 0 &&
                              __builtin_cpu_supports("avx512vbmi") != 0;
  switch (pVariant) {
    case KernelVariant::kSse41:
      return sSse41;
    case KernelVariant::kAvx2:
      return sAvx2;
    case KernelVariant::kAvx512:
      return sAvx512;
    default:
      return true;
  }
}

// The explicit variants this processor runs, the reference first (a family may lack one:
// KernelChoice::force() tells).
inline std::vector<KernelVariant> supportedKernelVariants() {
  std::vector<KernelVariant> variants;
  for (KernelVariant variant : {KernelVariant::kReference, KernelVariant::kSse41,
                                KernelVariant::kAvx2, KernelVariant::kAvx512}) {
    if (kernelVariantSupported(variant)) variants.push_back(variant);
  }
  return variants;
}

inline const char* kernelVariantName(KernelVariant pVariant) {
  switch (pVariant) {
    case KernelVariant::kReference:
      return "Reference";
    case KernelVariant::kSse41:
      return "Sse41";
    case KernelVariant::kAvx2:
      return "Avx2";
    case KernelVariant::kAvx512:
      return "Avx512";
    default:
      return "Automatic";
  }
}

template <class Kernels>
class KernelChoice {
 public:
  // constexpr: a choice at namespace scope is ready before any code of its library runs.
  // pAvx512: null for a family without an AVX-512 variant, which then refuses to force one.
  constexpr KernelChoice(const Kernels& pReference, const Kernels& pSse41, const Kernels& pAvx2,
                         const Kernels* pAvx512 = nullptr)
      : fReference(pReference), fSse41(pSse41), fAvx2(pAvx2), fAvx512(pAvx512) {}
  const Kernels& reference() const { return fReference; }
  const Kernels& active() const { return of(fForced.load(std::memory_order_relaxed)); }
  // Forces a variant (kAutomatic restores the selection); refuses one this processor lacks.
  bool force(KernelVariant pVariant) {
    if (!kernelVariantSupported(pVariant)) return false;
    if (pVariant == KernelVariant::kAvx512 && fAvx512 == nullptr) return false;
    fForced.store(pVariant, std::memory_order_relaxed);
    return true;
  }

 private:
  const Kernels& of(KernelVariant pVariant) const {
    switch (pVariant) {
      case KernelVariant::kReference:
        return fReference;
      case KernelVariant::kSse41:
        return fSse41;
      case KernelVariant::kAvx2:
        return fAvx2;
      case KernelVariant::kAvx512:
        return *fAvx512;
      default:
        // The fastest variant for this processor.
        if (fAvx512 != nullptr && kernelVariantSupported(KernelVariant::kAvx512)) return *fAvx512;
        if (kernelVariantSupported(KernelVariant::kAvx2)) return fAvx2;
        if (kernelVariantSupported(KernelVariant::kSse41)) return fSse41;
        return fReference;
    }
  }

  const Kernels& fReference;
  const Kernels& fSse41;
  const Kernels& fAvx2;
  const Kernels* fAvx512;
  std::atomic<KernelVariant> fForced{KernelVariant::kAutomatic};
};

}  // namespace OX
