// The key function of OXModuleStatus: its type information lives in the framework's library, so
// that a host finds the interface in a module loaded from another library.
#include "oxmodulestatus.h"

namespace OX {

OXModuleStatus::~OXModuleStatus() = default;

}  // namespace OX
