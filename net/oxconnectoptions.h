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
  // Whether replies may bring their large binaries (64 KiB and more) through a shared-memory
  // area instead of the socket (docs/shared-memory.md). Only a broker host on this machine (a
  // loopback or ipc address) offers one. kAuto asks such a host and carries on through the socket
  // when it refuses; kNever never asks; kRequire fails to connect without one. The results are
  // the same either way.
  enum class SharedMemory { kAuto, kNever, kRequire };
  SharedMemory fSharedMemory = SharedMemory::kAuto;
  // With an area, requests and replies travel over a Unix socket of the session instead of
  // ZeroMQ (docs/protocol.md), which saves ZeroMQ's threads a wake-up each way; false keeps them
  // on ZeroMQ, as for comparison. The results are the same either way.
  bool fUnixSocketCalls = true;
  // How long a request waits for its reply, in milliseconds; 0 or less: the process's remote
  // timeout (OXProxy::setRemoteTimeout). A client that must notice a silent host sooner than
  // the process default, such as a GStreamer element, sets its own.
  int fTimeoutMs = 0;
};

}  // namespace OX
