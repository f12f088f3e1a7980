// os_soc_config.cpp - socket wrappers and address helpers.

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_socket.h"

// The library's node is the C library's with the two pointers exchanged.
static_assert(sizeof(ZEPO_ADDRINFO) == sizeof(struct addrinfo));
static_assert(offsetof(ZEPO_ADDRINFO, ai_addrlen) == offsetof(struct addrinfo, ai_addrlen));
static_assert(offsetof(ZEPO_ADDRINFO, ai_canonname) == offsetof(struct addrinfo, ai_addr));
static_assert(offsetof(ZEPO_ADDRINFO, ai_addr) == offsetof(struct addrinfo, ai_canonname));
static_assert(offsetof(ZEPO_ADDRINFO, ai_next) == offsetof(struct addrinfo, ai_next));

namespace {

constexpr int32_t kFamilyIPv4 = AF_INET;
constexpr int32_t kFamilyIPv6 = AF_INET6;
static_assert(kFamilyIPv4 == 2 && kFamilyIPv6 == 10);

constexpr socklen_t kIPv4AddressSize = 16;
constexpr socklen_t kIPv6AddressSize = 28;
static_assert(sizeof(sockaddr_in) == kIPv4AddressSize);
static_assert(sizeof(sockaddr_in6) == kIPv6AddressSize);

// ZEPO_IsLocalIp asks for at most this many interfaces, 40 bytes each (640 bytes).
constexpr int kInterfaceSlots = 16;
static_assert(sizeof(struct ifreq) == 40);

// The bytes of an IPv4 socket address after its family: port and address ...
constexpr size_t kAfterFamily = sizeof(sockaddr_in) - offsetof(sockaddr_in, sin_port);
// ... and after its port: address and padding.
constexpr size_t kAfterPort = sizeof(sockaddr_in) - offsetof(sockaddr_in, sin_addr);

const sockaddr *as_address(const void *address) { return static_cast<const sockaddr *>(address); }

uint32_t read_u32(const void *bytes) {
    uint32_t value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

// Whether the 16 bytes at a and b are equal, compared as two 64-bit words.
bool same_ipv6(const void *a, const void *b) {
    uint64_t left[2];
    uint64_t right[2];
    memcpy(left, a, sizeof left);
    memcpy(right, b, sizeof right);
    return left[0] == right[0] && left[1] == right[1];
}

// Whether an interface address matches.  For IPv6 the test is deliberately "not IPv4":
// an entry of any other family is compared at the same place.
bool interface_has(const struct ifaddrs &entry, int32_t family, const void *address) {
    if ((entry.ifa_flags & IFF_UP) == 0 || entry.ifa_addr == nullptr) return false;
    const sa_family_t entryFamily = entry.ifa_addr->sa_family;
    if (family == kFamilyIPv6) {
        if (entryFamily == kFamilyIPv4) return false;
        const auto *ipv6 = reinterpret_cast<const sockaddr_in6 *>(entry.ifa_addr);
        return same_ipv6(&ipv6->sin6_addr, address);
    }
    if (family == kFamilyIPv4) {
        if (entryFamily != kFamilyIPv4) return false;
        const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(entry.ifa_addr);
        return ipv4->sin_addr.s_addr == read_u32(address);
    }
    return false;
}

}  // namespace

extern "C" {

// ---- Thin wrappers --------------------------------------------------------------------

int32_t ZEPO_InitSocket(void) { return 1; }

void ZEPO_DInitSocket(void) {}

int32_t ZEPO_Socket(int32_t domain, int32_t type, int32_t protocol) {
    return socket(domain, type, protocol);
}

int32_t ZEPO_Connect(int32_t fd, const struct sockaddr *addr, uint32_t len) {
    if (!qel::accepted(addr)) return qel::kRefused;
    return connect(fd, addr, len);
}

int32_t ZEPO_Bind(int32_t fd, const struct sockaddr *addr, uint32_t len) {
    if (!qel::accepted(addr)) return qel::kRefused;
    return bind(fd, addr, len);
}

int32_t ZEPO_Listen(int32_t fd, int32_t backlog) { return listen(fd, backlog); }

int32_t ZEPO_Accept(int32_t fd, struct sockaddr *addr, socklen_t *lenp) {
    return accept(fd, addr, lenp);
}

// The lengths are signed 32-bit and sign-extended.
int64_t ZEPO_Send(int32_t fd, const void *buf, int32_t len, int32_t flags) {
    if (!qel::accepted(buf)) return qel::kRefused64;
    return send(fd, buf, static_cast<size_t>(static_cast<int64_t>(len)), flags);
}

int64_t ZEPO_Recv(int32_t fd, void *buf, int32_t len, int32_t flags) {
    if (!qel::accepted(buf)) return qel::kRefused64;
    return recv(fd, buf, static_cast<size_t>(static_cast<int64_t>(len)), flags);
}

int32_t ZEPO_Sendto(int32_t fd, const void *buf, uint32_t len, int32_t flags,
                    const struct sockaddr *addr, socklen_t alen) {
    if (!qel::accepted(buf)) return qel::kRefusedMoved;
    return static_cast<int32_t>(sendto(fd, buf, len, flags, addr, alen));
}

int32_t ZEPO_Recvfrom(int32_t fd, void *buf, uint32_t len, int32_t flags, struct sockaddr *addr,
                      socklen_t *alenp) {
    if (!qel::accepted(buf)) return qel::kRefusedMoved;
    return static_cast<int32_t>(recvfrom(fd, buf, len, flags, addr, alenp));
}

int32_t ZEPO_CloseSocket(int32_t fd) { return close(fd); }

int32_t ZEPO_Select(int32_t nfds, fd_set *readSet, fd_set *writeSet, fd_set *exceptSet,
                    struct timeval *timeout) {
    return select(nfds, readSet, writeSet, exceptSet, timeout);
}

int32_t ZEPO_GetSockName(int32_t fd, struct sockaddr *addr, socklen_t *lenp) {
    if (!qel::accepted(addr, lenp)) return qel::kRefused;
    return getsockname(fd, addr, lenp);
}

int32_t ZEPO_GetPeerName(int32_t fd, struct sockaddr *addr, socklen_t *lenp) {
    if (!qel::accepted(addr, lenp)) return qel::kRefused;
    return getpeername(fd, addr, lenp);
}

int32_t ZEPO_GetSockOpt(int32_t fd, int32_t level, int32_t name, void *val, socklen_t *lenp) {
    if (!qel::accepted(val, lenp)) return qel::kRefused;
    return getsockopt(fd, level, name, val, lenp);
}

int32_t ZEPO_SetSockOpt(int32_t fd, int32_t level, int32_t name, const void *val, socklen_t len) {
    if (!qel::accepted(val)) return qel::kRefused;
    return setsockopt(fd, level, name, val, len);
}

int32_t ZEPO_IoctlSocket(int32_t fd, int32_t request, void *arg) {
    // The request is sign-extended to the service's unsigned long.
    return ioctl(fd, static_cast<unsigned long>(static_cast<long>(request)), arg);
}

int32_t ZEPO_GetHostName(char *name, uint32_t len) {
    if (!qel::accepted(name)) return qel::kRefused;
    return gethostname(name, len);
}

struct hostent *ZEPO_GetHostByName(const char *name) {
    if (!qel::accepted(qel::text(name))) return nullptr;
    return gethostbyname(name);
}

int32_t ZEPO_GetHostByName_S(const char *name, struct hostent *entry, char *buf, uint32_t buflen,
                             struct hostent **result, int32_t *herr) {
    if (!qel::accepted(qel::text(name), entry, buf)) return qel::kRefused;
    return gethostbyname_r(name, entry, buf, buflen, result, herr);
}

// A null text gives 0, the address 0.0.0.0, not the C library's error value.
uint32_t ZEPO_InetAddr(const char *text) {
    if (!qel::accepted(text)) return 0;
    return inet_addr(text);
}

char *ZEPO_InetNtoa(uint32_t addr) {
    struct in_addr address;
    qel::traced(memcpy_s(&address, sizeof address, &addr, sizeof addr));
    return inet_ntoa(address);
}

int32_t ZEPO_Inet_Pton(int32_t af, const char *text, void *dst) {
    if (!qel::accepted(text, dst)) return 0;
    return inet_pton(af, text, dst);
}

const char *ZEPO_Inet_Ntop(int32_t af, const void *src, char *buf, uint32_t len) {
    if (!qel::accepted(src, buf)) return nullptr;
    return inet_ntop(af, src, buf, len);
}

int32_t QEL_Socket_Get_AF_INET6(void) { return kFamilyIPv6; }

// ---- Address information ---------------------------------------------------------------

int32_t ZEPO_GetAddrInfo(const char *node, const char *service, const struct addrinfo *hints,
                         ZEPO_ADDRINFO **res) {
    if (!qel::accepted(res)) return qel::kRefused;
    const int result = getaddrinfo(node, service, hints, reinterpret_cast<struct addrinfo **>(res));
    // An empty list gives -1 whatever the resolver said: this test comes first.
    if (*res == nullptr) return qel::kRefused;
    if (result != 0) return result;
    zepoAddrInfoSwapNameAndAddr(reinterpret_cast<struct addrinfo *>(*res));
    return 0;
}

void ZEPO_FreeAddrInfo(ZEPO_ADDRINFO *list) {
    if (list == nullptr) return;
    auto *nodes = reinterpret_cast<struct addrinfo *>(list);
    zepoAddrInfoSwapNameAndAddr(nodes);
    freeaddrinfo(nodes);
}

void zepoAddrInfoSwapNameAndAddr(struct addrinfo *list) {
    for (struct addrinfo *node = list; node != nullptr; node = node->ai_next) {
        char *name = node->ai_canonname;
        node->ai_canonname = reinterpret_cast<char *>(node->ai_addr);
        node->ai_addr = reinterpret_cast<struct sockaddr *>(name);
    }
}

// ---- Connecting to numeric addresses ----------------------------------------------------

int32_t ZEPO_ConnectAdd(int32_t fd, uint32_t ip, uint32_t port) {
    // Port and address are copied into place; the eight trailing bytes of the address
    // are not cleared (the kernel ignores them).
    struct sockaddr_in address;
    address.sin_family = kFamilyIPv4;
    const uint16_t netPort = htons(static_cast<uint16_t>(port));
    qel::traced(memcpy_s(&address.sin_port, kAfterFamily, &netPort, sizeof netPort));
    const uint32_t netAddress = htonl(ip);
    qel::traced(memcpy_s(&address.sin_addr, kAfterPort, &netAddress, sizeof netAddress));
    return connect(fd, as_address(&address), kIPv4AddressSize);
}

int32_t ZEPO_ConnectAdd6(int32_t fd, int32_t family, const void *addr, uint32_t port) {
    if (family == kFamilyIPv4) {
        // The IPv4 address is the 32-bit value in host order at addr.
        struct sockaddr_in address;
        (void)memset_s(&address, sizeof address, 0, sizeof address);
        address.sin_family = kFamilyIPv4;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(read_u32(addr));
        return connect(fd, as_address(&address), kIPv4AddressSize);
    }
    // Any other family is taken as IPv6.
    struct sockaddr_in6 address;
    (void)memset_s(&address, sizeof address, 0, sizeof address);
    address.sin6_family = static_cast<sa_family_t>(QEL_Socket_Get_AF_INET6());
    address.sin6_port = htons(static_cast<uint16_t>(port));
    qel::traced(
        memcpy_s(&address.sin6_addr, sizeof address.sin6_addr, addr, sizeof address.sin6_addr));
    return connect(fd, as_address(&address), kIPv6AddressSize);
}

// ---- Local addresses -------------------------------------------------------------------

int32_t ZEPO_IsLocalIp(uint32_t ip) {
    // Every failure reads as "not local".
    qel::Descriptor probe(socket(kFamilyIPv4, SOCK_DGRAM, 0));
    if (!probe.valid()) return 0;
    struct ifreq interfaces[kInterfaceSlots];
    struct ifconf list;
    list.ifc_len = sizeof interfaces;
    list.ifc_req = interfaces;
    if (ioctl(probe.get(), SIOCGIFCONF, &list) < 0) return 0;
    // From the last interface to the first; the flags request leaves the address that
    // shares the entry intact.  Interfaces beyond the sixteenth are never seen.
    for (int i = list.ifc_len / static_cast<int>(sizeof(struct ifreq)) - 1; i >= 0; --i) {
        if (ioctl(probe.get(), SIOCGIFFLAGS, &interfaces[i]) < 0) return 0;
        const auto *address = reinterpret_cast<const sockaddr_in *>(&interfaces[i].ifr_addr);
        if ((interfaces[i].ifr_flags & IFF_UP) != 0 && address->sin_addr.s_addr == ip) return 1;
    }
    return 0;
}

int32_t ZEPO_IsLocalIp6(int32_t family, const void *addr) {
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return 0;
    bool found = false;
    for (const struct ifaddrs *entry = list; entry != nullptr && !found; entry = entry->ifa_next) {
        found = interface_has(*entry, family, addr);
    }
    freeifaddrs(list);
    return found ? 1 : 0;
}

int32_t ZEPO_TestIpType(const char *text) {
    unsigned char scratch[sizeof(struct in6_addr)];
    (void)memset_s(scratch, sizeof scratch, 0, sizeof scratch);
    if (ZEPO_Inet_Pton(kFamilyIPv4, text, scratch) > 0) return kFamilyIPv4;
    if (ZEPO_Inet_Pton(kFamilyIPv6, text, scratch) < 1) return qel::kRefused;
    return QEL_Socket_Get_AF_INET6();
}

int32_t qel_set_socketport_no_inherit(int32_t fd) {
    // The first result is not tested: if it fails, -1 with bit 0 set is -1, and the
    // second call fails as well.
    const int32_t flags = ZEPO_Fcntl(fd, F_GETFD);
    return ZEPO_Fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

}  // extern "C"

// ---- Port state scanner ----------------------------------------------------------------

namespace {

// One line of a kernel socket table (/proc/net/tcp and its kin), in the order the format
// fills it.  Only the local port and the state are used; the other fields are parsed all
// the same, so that only a complete line counts.
struct SocketLine {
    int32_t slot;
    char localAddress[65];
    uint32_t localPort;
    char remoteAddress[65];
    uint32_t remotePort;
    uint32_t state;
    unsigned long txQueue;
    unsigned long rxQueue;
    uint32_t timerActive;
    unsigned long timerExpiry;
    unsigned long retransmits;
    int32_t uid;
    int32_t timeout;
    long inode;
    char rest[513];
};
static_assert(sizeof(unsigned long) == 8 && sizeof(long) == 8);

// The word after the inode is part of the line: a line that ends at the inode gives 14.
constexpr int kSocketLineFields = 15;
constexpr const char *kSocketLineFormat =
    "%d: %64[0-9A-Fa-f]:%x %64[0-9A-Fa-f]:%x %x %lx:%lx %x:%lx %lx %d %d %ld %512s\n";

// Big enough for any line the kernel writes; a longer one is read in pieces, each taken
// as a line of its own.
constexpr int kTableLineSize = 8192;

constexpr int32_t kNotFound = -1;
constexpr int32_t kProtocolUdp = 1;
constexpr int32_t kProtocolTcp = 2;

// Closes the table on every path out of the scan.
class TableStream {
public:
    explicit TableStream(FILE *stream) : stream_(stream) {}
    ~TableStream() {
        if (stream_ != nullptr) fclose(stream_);
    }
    TableStream(const TableStream &) = delete;
    TableStream &operator=(const TableStream &) = delete;
    FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }

private:
    FILE *stream_;
};

int parse_socket_line(const char *line, SocketLine &f) {
    return sscanf_s(line, kSocketLineFormat, &f.slot, f.localAddress, sizeof f.localAddress,
                    &f.localPort, f.remoteAddress, sizeof f.remoteAddress, &f.remotePort, &f.state,
                    &f.txQueue, &f.rxQueue, &f.timerActive, &f.timerExpiry, &f.retransmits, &f.uid,
                    &f.timeout, &f.inode, f.rest, sizeof f.rest);
}

}  // namespace

extern "C" {

int32_t zepoGet_Port_State(const char *path, uint32_t port, uint32_t *state) {
    if (!qel::accepted(qel::text(path), state)) return qel::kRefused;
    char line[kTableLineSize];
    (void)memset_s(line, sizeof line, 0, sizeof line);
    TableStream table(fopen(path, "r"));
    if (!table) return kNotFound;
    bool headerSkipped = false;
    for (;;) {
        if (fgets(line, kTableLineSize, table.get()) != nullptr) {
            if (headerSkipped) {
                SocketLine fields;
                (void)memset_s(&fields, sizeof fields, 0, sizeof fields);
                // The first line with this local port wins, whatever its state or address.
                if (parse_socket_line(line, fields) >= kSocketLineFields &&
                    fields.localPort == port) {
                    ZEPO_Printf("LocalPort=%d, usPort=%d, state=%d\r\n", static_cast<int>(port),
                                static_cast<int>(port), static_cast<int>(fields.state));
                    *state = fields.state;
                    return 0;
                }
            }
            headerSkipped = true;
        }
        // After each read attempt: the end of the table ends the scan; a read that failed
        // short of the end is simply tried again.
        if (feof(table.get())) return kNotFound;
    }
}

int32_t ZEPO_PortStat(int32_t port, int32_t protocol) {
    // Only the low 16 bits name the port: 65536 is port 0, 65537 is port 1.
    const uint32_t localPort = static_cast<uint16_t>(port);
    if (localPort == 0) return qel::kRefused;
    const char *ipv4Table = nullptr;
    const char *ipv6Table = nullptr;
    if (protocol == kProtocolUdp) {
        ipv4Table = "/proc/net/udp";
        ipv6Table = "/proc/net/udp6";
    } else if (protocol == kProtocolTcp) {
        ipv4Table = "/proc/net/tcp";
        ipv6Table = "/proc/net/tcp6";
    } else {
        return qel::kRefused;
    }
    // The state found is not handed on: a port in any state is in use.  A table that
    // cannot be opened holds no such port, so a host without IPv6 still answers.
    uint32_t state = 0;
    if (zepoGet_Port_State(ipv4Table, localPort, &state) == 0) return 1;
    if (zepoGet_Port_State(ipv6Table, localPort, &state) == 0) return 1;
    return 0;
}

}  // extern "C"
