// How a remote proxy connects to a broker host: OXProxy::connect(url, module, options). A plain
// struct whose defaults connect as a plain client on the same machine does.
#pragma once

#include <string>

namespace OX {

struct ConnectOptions {
  // CURVE (docs/security.md): the broker's public key file and this client's secret key file,
  // as oxkeygen writes them. Both empty: no encryption; one without the other is refused.
  std::string fServerKey;
  std::string fClientKey;
};

}  // namespace OX
