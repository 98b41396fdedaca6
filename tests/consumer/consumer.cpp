// A client written against the installed framework only: it creates a broker in its own process,
// loads the installed OXVideoDevice module with the installed default preferences, and uses the
// device through IVideoInput: subscribe, push a frame, take the converted image, unsubscribe.
// Guards against an install that compiles but cannot be used (missing headers, libraries, RPATH,
// preferences or package metadata). Exits 0 on success.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "ivideoinput.h"
#include "oxbroker.h"
#include "oxtypes.h"

namespace {

int fail(const char* pWhat) {
  std::fprintf(stderr, "consumer: %s\n", pWhat);
  return 1;
}

// Pushes QVGA frames until the subscriber's QQVGA image is there; null after a few seconds.
OX::OXImage* pushUntilImage(OX::IVideoInput& pDevice, const std::string& pName) {
  const std::vector<unsigned char> rgb(320 * 240 * 3, 128);
  const OX::OXValue frame = OX::OXValue::binary(rgb.data(), static_cast<int>(rgb.size()));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < deadline) {
    pDevice.putImage(0, 320, 240, frame);
    if (OX::OXImage* image = pDevice.getImageLocal(pName)) return image;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return nullptr;
}

}  // namespace

int main() {
  const boost::shared_ptr<OX::OXBroker> broker =
      OX::OXBroker::createBroker("consumer", {VI_PREFERENCES_DIR});
  void* library = dlopen(VI_MODULE, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return fail(dlerror());
  using CreateModule = int (*)(boost::shared_ptr<OX::OXBroker>);
  const auto create = reinterpret_cast<CreateModule>(dlsym(library, "_createModule"));
  if (create == nullptr || create(broker) != 0) return fail("the module created no device");

  const auto device =
      boost::dynamic_pointer_cast<OX::IVideoInput>(broker->getModuleByName("OXVideoDevice"));
  if (!device) return fail("no OXVideoDevice offering IVideoInput");
  const std::string name = device->subscribeCamera("consumer", 0, OX::kQQVGA, OX::kRGB, 30);
  OX::OXImage* image = pushUntilImage(*device, name);
  const bool sized = image != nullptr && image->fWidth == 160 && image->fHeight == 120;
  if (image != nullptr) device->releaseImage(name);
  device->unsubscribe(name);
  broker->removeAllModules();
  if (!sized) return fail("no 160x120 image from the device");
  std::printf("consumer: got a 160x120 image from %s\n", VI_MODULE);
  return 0;
}
