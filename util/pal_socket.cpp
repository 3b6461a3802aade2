// Creates endpoints and socket pairs. See pal_socket.h.
#include "util/pal_socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "util/pal_error.h"
#include "util/pal_mem.h"
#include "util/pal_strings.h"
#include "util/pal_util.h"

namespace {

constexpr uint16_t kFirstPort = 1025;  // 1024 isn't tried, although a message below names it
constexpr uint16_t kPortLimit = 65535;
constexpr const char* kLoopback = "127.0.0.1";

struct AddressFree {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressFree>;

struct Host {
  std::string name;
  AddressList addresses;  // null if the name can't be resolved
};

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int get() const { return number_; }
  [[nodiscard]] int release() {
    const int number = number_;
    number_ = -1;
    return number;
  }

 private:
  int number_;
};

// Returns 0, or the error code of getaddrinfo.
int Resolve(const char* name, AddressList& list) {
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* result = nullptr;
  const int code = getaddrinfo(name, nullptr, &hints, &result);
  if (code == 0) list.reset(result);
  return code;
}

const char* ResolveError(int code) {
  return code == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(code);
}

bool FindLocalHost(Host& host) {
  char name[HOST_NAME_MAX + 1] = "";
  if (gethostname(name, sizeof name - 1) != 0) {
    PAL_Error("cannot determine local host name: gethostname(): %s", std::strerror(errno));
    return false;
  }
  const int code = Resolve(name, host.addresses);
  if (code != 0) {
    PAL_Error("cannot determine local host address: getaddrinfo(%s): %s",
              PAL_Printable(name).c_str(), ResolveError(code));
    return false;
  }
  host.name = name;
  return true;
}

bool FindHost(const char* hostname, Host& host) {
  if (hostname != nullptr && Resolve(hostname, host.addresses) == 0) {
    host.name = hostname;
    return true;
  }
  return FindLocalHost(host);
}

// The host's first address that isn't the loopback address, or its name if there is none.
std::string ContactHost(const Host& host) {
  for (const addrinfo* entry = host.addresses.get(); entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET) continue;
    sockaddr_in address;
    std::memcpy(&address, entry->ai_addr, sizeof address);
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr) continue;
    if (std::strcmp(text, kLoopback) != 0) return text;
  }
  return host.name;
}

// Binds to the first free port and returns it, or 0 with errno.
uint16_t BindFreePort(int descriptor) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  for (uint16_t port = kFirstPort; port < kPortLimit; ++port) {
    address.sin_port = htons(port);
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return port;
    }
  }
  return 0;
}

PAL_Socket* NewSocket(int descriptor, uint32_t token) {
  PAL_Socket* socket;
  PAL_CALLOC(socket, 1, sizeof *socket);
  socket->descriptor = descriptor;
  socket->token = token;
  return socket;
}

}  // namespace

int PAL_SocketListen(int process, int backlog, const char* hostname, std::string& contact,
                     PAL_Socket*& socket) {
  contact.clear();
  socket = nullptr;
  Host host;
  if (!FindHost(hostname, host)) return 1;
  Descriptor descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (descriptor.get() < 0) {
    PAL_Error("cannot create socket: socket(): %s", std::strerror(errno));
    return 1;
  }
  const uint16_t port = BindFreePort(descriptor.get());
  if (port == 0) {
    PAL_Error("cannot bind to any port between 1024 and %u, last error was: bind(): %s",
              unsigned{kPortLimit}, std::strerror(errno));
    return 1;
  }
  if (listen(descriptor.get(), backlog) != 0) {
    PAL_Error("cannot listen on port %u: bind(): %s", unsigned{port}, std::strerror(errno));
    return 1;
  }
  const uint32_t token = PAL_RandomSeed();
  contact = PAL_asprintf("%d:%u_%u@%s", process, unsigned{port}, token, ContactHost(host).c_str());
  socket = NewSocket(descriptor.release(), token);
  return 0;
}

int PAL_SocketPair(PAL_Socket* (&sockets)[2]) {
  sockets[0] = sockets[1] = nullptr;
  int descriptors[2];
  if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, descriptors) != 0) {
    PAL_Error("cannot create socket pair: socketpair(): %s", std::strerror(errno));
    return 1;
  }
  for (int i = 0; i < 2; ++i) sockets[i] = NewSocket(descriptors[i], 0);
  return 0;
}

void PAL_SocketClose(PAL_Socket* socket) {
  if (socket == nullptr) return;
  if (socket->descriptor != -1) close(socket->descriptor);
  PAL_FREE(socket->buffer);
  PAL_FREE(socket);
}
