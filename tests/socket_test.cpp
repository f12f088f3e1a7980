// Socket wrappers and address helpers.
//
// Traffic stays on 127.0.0.1 and ::1, or inside a network namespace that a forked child makes
// for itself.  Every server is a listening socket of the test on a port the system picks; every
// descriptor is closed by its owner object.  Names that must not resolve are under the reserved
// .invalid domain, which the resolver refuses quickly here.
//
// A few C library calls are interposed below (connect, send, recv, ioctl, fcntl): the test's
// definitions record what the library passed and forward to the next definition found by the
// dynamic linker, so the service still runs.  The library reaches them through the dynamic
// linker, and the executable comes first in its search order (also ahead of the sanitizer
// runtime in the sanitized build).

// The fortified inline forms of recv and friends would clash with the definitions below.
#undef _FORTIFY_SOURCE

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qel_socket.h"

#include "test_support.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

using qel_test::kSentinel;
constexpr int64_t kLow32AllOnes = INT64_C(4294967295);

// ---- What the interposed C library functions saw ---------------------------------------------

struct ConnectCall {
    int fd = -1;
    socklen_t len = 0;
    unsigned char bytes[128] = {};
};
std::atomic<int> connect_count{0};
ConnectCall last_connect;

std::atomic<int> send_count{0};
size_t last_send_len = 0;
std::atomic<int> recv_count{0};
size_t last_recv_len = 0;

std::atomic<int> ioctl_count{0};
unsigned long last_ioctl_request = 0;

// fcntl calls are kept only while a test asks for them.
struct FcntlCall {
    int fd;
    int cmd;
    long arg;
};
std::atomic<bool> record_fcntl{false};
FcntlCall fcntl_calls[16];
std::atomic<int> fcntl_count{0};

void keep_fcntl(int fd, int cmd, long arg) {
    if (!record_fcntl.load()) return;
    int i = fcntl_count.fetch_add(1);
    if (i < 16) fcntl_calls[i] = FcntlCall{fd, cmd, arg};
}

using qel_test::next_definition;

}  // namespace

extern "C" int connect(int fd, const struct sockaddr *addr, socklen_t len) {
    using Fn = int (*)(int, const struct sockaddr *, socklen_t);
    static const Fn next = next_definition<Fn>("connect");
    last_connect = ConnectCall{};
    last_connect.fd = fd;
    last_connect.len = len;
    if (addr != nullptr) std::memcpy(last_connect.bytes, addr, len < 128 ? len : 128);
    connect_count.fetch_add(1);
    return next(fd, addr, len);
}

extern "C" ssize_t send(int fd, const void *buf, size_t len, int flags) {
    using Fn = ssize_t (*)(int, const void *, size_t, int);
    static const Fn next = next_definition<Fn>("send");
    last_send_len = len;
    send_count.fetch_add(1);
    return next(fd, buf, len, flags);
}

extern "C" ssize_t recv(int fd, void *buf, size_t len, int flags) {
    using Fn = ssize_t (*)(int, void *, size_t, int);
    static const Fn next = next_definition<Fn>("recv");
    last_recv_len = len;
    recv_count.fetch_add(1);
    return next(fd, buf, len, flags);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    using Fn = int (*)(int, unsigned long, ...);
    static const Fn next = next_definition<Fn>("ioctl");
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    last_ioctl_request = request;
    ioctl_count.fetch_add(1);
    return next(fd, request, arg);
}

extern "C" int fcntl(int fd, int cmd, ...) {
    using Fn = int (*)(int, int, ...);
    static const Fn next = next_definition<Fn>("fcntl");
    va_list ap;
    va_start(ap, cmd);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    keep_fcntl(fd, cmd, static_cast<long>(reinterpret_cast<intptr_t>(arg)));
    return next(fd, cmd, arg);
}

extern "C" int fcntl64(int fd, int cmd, ...) {
    using Fn = int (*)(int, int, ...);
    static const Fn next = next_definition<Fn>("fcntl64");
    va_list ap;
    va_start(ap, cmd);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    keep_fcntl(fd, cmd, static_cast<long>(reinterpret_cast<intptr_t>(arg)));
    return next(fd, cmd, arg);
}

namespace {

// ---- Helpers -------------------------------------------------------------------------------

// A descriptor closed on destruction.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        if (this != &other) {
            reset();
            fd_ = other.release();
        }
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// Waits until fd has something to read (or, for a listener, a connection to accept).
bool wait_readable(int fd, int timeout_ms = 20000) {
    struct pollfd p = {fd, POLLIN, 0};
    for (;;) {
        int r = ::poll(&p, 1, timeout_ms);
        if (r < 0 && errno == EINTR) continue;
        return r == 1 && (p.revents & POLLIN) != 0;
    }
}

// Repeats check every 10 ms until it holds or seconds have passed.
template <typename Check>
bool wait_until(Check check, int seconds = 20) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!check()) {
        if (std::chrono::steady_clock::now() > end) return check();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

struct sockaddr_in loopback4(uint16_t port) {
    struct sockaddr_in a;
    std::memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

struct sockaddr_in6 loopback6(uint16_t port) {
    struct sockaddr_in6 a;
    std::memset(&a, 0, sizeof a);
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    a.sin6_addr = in6addr_loopback;
    return a;
}

uint16_t port_of(int fd) {
    struct sockaddr_storage a;
    socklen_t len = sizeof a;
    if (::getsockname(fd, reinterpret_cast<struct sockaddr *>(&a), &len) != 0) return 0;
    if (a.ss_family == AF_INET) return ntohs(reinterpret_cast<struct sockaddr_in *>(&a)->sin_port);
    return ntohs(reinterpret_cast<struct sockaddr_in6 *>(&a)->sin6_port);
}

// A TCP server listening on the loopback address of family (2 or 10), on a port of the system's
// choosing; made with the C library, so that the wrappers under test meet a known-good peer.
struct Server {
    Fd fd;
    uint16_t port = 0;
};

Server listening_server(int family) {
    Server s;
    s.fd = Fd(::socket(family, SOCK_STREAM, 0));
    if (s.fd.get() < 0) return s;
    int rc;
    if (family == AF_INET) {
        struct sockaddr_in a = loopback4(0);
        rc = ::bind(s.fd.get(), reinterpret_cast<struct sockaddr *>(&a), sizeof a);
    } else {
        struct sockaddr_in6 a = loopback6(0);
        rc = ::bind(s.fd.get(), reinterpret_cast<struct sockaddr *>(&a), sizeof a);
    }
    if (rc != 0 || ::listen(s.fd.get(), 8) != 0) {
        s.fd.reset();
        return s;
    }
    s.port = port_of(s.fd.get());
    return s;
}

// A connected TCP pair over 127.0.0.1: the client's end and the server's accepted end.
struct Pair {
    Fd client;
    Fd server;
};

Pair connected_pair() {
    Pair p;
    Server s = listening_server(AF_INET);
    if (s.fd.get() < 0) return p;
    p.client = Fd(::socket(AF_INET, SOCK_STREAM, 0));
    struct sockaddr_in a = loopback4(s.port);
    if (::connect(p.client.get(), reinterpret_cast<struct sockaddr *>(&a), sizeof a) != 0) {
        p.client.reset();
        return p;
    }
    if (wait_readable(s.fd.get())) p.server = Fd(::accept(s.fd.get(), nullptr, nullptr));
    return p;
}

// Accepts the connection waiting on a listener and gives the peer address it reports.
Fd accept_one(int listener, struct sockaddr_storage *peer = nullptr) {
    if (!wait_readable(listener)) return Fd();
    struct sockaddr_storage a;
    socklen_t len = sizeof a;
    Fd fd(::accept(listener, reinterpret_cast<struct sockaddr *>(&a), &len));
    if (peer != nullptr) *peer = a;
    return fd;
}

// The two bytes of an address's family field as the kernel reads them (host order).
int family_in(const unsigned char *bytes) {
    sa_family_t f;
    std::memcpy(&f, bytes, sizeof f);
    return f;
}

std::string hex(const void *data, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    const auto *p = static_cast<const unsigned char *>(data);
    for (size_t i = 0; i < n; ++i) {
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}

// An IPv4 address that no interface of this machine has (TEST-NET-3, never sent to).
constexpr const char *kForeignIpv4 = "203.0.113.77";
// An IPv6 address that no interface has (documentation prefix, never sent to).
constexpr const char *kForeignIpv6 = "2001:db8::4d";

bool any_interface_has(int family, const void *addr) {
    struct ifaddrs *list = nullptr;
    if (::getifaddrs(&list) != 0) return true;  // unknown: let the caller's check fail
    bool found = false;
    for (struct ifaddrs *p = list; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_addr->sa_family != family) continue;
        if (family == AF_INET &&
            std::memcmp(&reinterpret_cast<struct sockaddr_in *>(p->ifa_addr)->sin_addr, addr, 4) ==
                0)
            found = true;
        if (family == AF_INET6 &&
            std::memcmp(&reinterpret_cast<struct sockaddr_in6 *>(p->ifa_addr)->sin6_addr, addr,
                        16) == 0)
            found = true;
    }
    ::freeifaddrs(list);
    return found;
}

// Sets or clears the up flag of the loopback interface of the calling process's namespace.
bool set_loopback_up(bool up) {
    Fd s(::socket(AF_INET, SOCK_DGRAM, 0));
    if (s.get() < 0) return false;
    struct ifreq req;
    std::memset(&req, 0, sizeof req);
    std::strcpy(req.ifr_name, "lo");
    if (::ioctl(s.get(), SIOCGIFFLAGS, &req) != 0) return false;
    if (up)
        req.ifr_flags = static_cast<short>(req.ifr_flags | IFF_UP);
    else
        req.ifr_flags = static_cast<short>(req.ifr_flags & ~IFF_UP);
    return ::ioctl(s.get(), SIOCSIFFLAGS, &req) == 0;
}

// Runs body in a forked child and gives the child's exit status (or 1000 + signal).
template <typename Body>
int in_child(Body body) {
    pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) ::_exit(body());
    int status = 0;
    if (::waitpid(child, &status, 0) != child) return -2;
    if (WIFSIGNALED(status)) return 1000 + WTERMSIG(status);
    return WEXITSTATUS(status);
}

double seconds_since(const struct timespec &start) {
    struct timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) +
           static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
}

struct timespec monotonic_now() {
    struct timespec t;
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

}  // namespace

// Checks that a wrapper gives what the C library gives for the same arguments: the same result
// and the same errno (each starts from a sentinel, so a stale value cannot pass).
#define EXPECT_SAME_AS_SERVICE(wrapped, direct)                                                \
    do {                                                                                       \
        errno = kSentinel;                                                                     \
        auto direct_result_ = (direct);                                                        \
        int direct_errno_ = errno;                                                             \
        errno = kSentinel;                                                                     \
        auto wrapped_result_ = (wrapped);                                                      \
        int wrapped_errno_ = errno;                                                            \
        EXPECT_EQ(static_cast<int64_t>(wrapped_result_), static_cast<int64_t>(direct_result_)) \
            << #wrapped;                                                                       \
        EXPECT_EQ(wrapped_errno_, direct_errno_)                                               \
            << #wrapped << ": " << std::strerror(wrapped_errno_);                              \
    } while (0)

// ==== Start, stop and the family number =======================================================

TEST(Socket, InitSocketAlwaysGivesOne) {
    EXPECT_EQ(ZEPO_InitSocket(), 1);
    EXPECT_EQ(ZEPO_InitSocket(), 1);
}

TEST(Socket, DInitSocketDoesNothingAndLeavesSocketsWorking) {
    Pair p = connected_pair();
    ASSERT_GE(p.server.get(), 0);
    errno = kSentinel;
    ZEPO_DInitSocket();
    EXPECT_EQ(errno, kSentinel);
    // An open connection still carries data afterwards.
    EXPECT_EQ(::send(p.client.get(), "x", 1, 0), 1);
    ASSERT_TRUE(wait_readable(p.server.get()));
    char c = 0;
    EXPECT_EQ(::recv(p.server.get(), &c, 1, 0), 1);
    EXPECT_EQ(c, 'x');
    EXPECT_EQ(ZEPO_InitSocket(), 1);
}

TEST(Socket, AfInet6NumberIsTen) { EXPECT_EQ(QEL_Socket_Get_AF_INET6(), 10); }

// ==== Refusals of the thin wrappers ==========================================================

TEST(Socket, SendOfNullBufferGivesLow32BitsAllOnesNotMinusOne) {
    Pair p = connected_pair();
    ASSERT_GE(p.server.get(), 0);
    const int before = send_count.load();
    EXPECT_REFUSED(ZEPO_Send(p.client.get(), nullptr, 4, 0), kLow32AllOnes);
    EXPECT_REFUSED(ZEPO_Send(p.client.get(), nullptr, 0, 0), kLow32AllOnes);
    EXPECT_REFUSED(ZEPO_Send(-1, nullptr, -1, 0), kLow32AllOnes);
    EXPECT_NE(ZEPO_Send(p.client.get(), nullptr, 4, 0), -1);
    EXPECT_EQ(send_count.load(), before) << "a refused send reached the service";
}

TEST(Socket, RecvOfNullBufferGivesLow32BitsAllOnesNotMinusOne) {
    Pair p = connected_pair();
    ASSERT_GE(p.server.get(), 0);
    const int before = recv_count.load();
    EXPECT_REFUSED(ZEPO_Recv(p.server.get(), nullptr, 4, 0), kLow32AllOnes);
    EXPECT_REFUSED(ZEPO_Recv(p.server.get(), nullptr, 0, MSG_DONTWAIT), kLow32AllOnes);
    EXPECT_REFUSED(ZEPO_Recv(-1, nullptr, -1, 0), kLow32AllOnes);
    EXPECT_NE(ZEPO_Recv(p.server.get(), nullptr, 4, 0), -1);
    EXPECT_EQ(recv_count.load(), before) << "a refused recv reached the service";
}

TEST(Socket, SendtoAndRecvfromOfNullBufferGiveZero) {
    Fd udp(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_GE(udp.get(), 0);
    struct sockaddr_in to = loopback4(9);
    struct sockaddr_in from;
    socklen_t fromlen = sizeof from;
    EXPECT_REFUSED(
        ZEPO_Sendto(udp.get(), nullptr, 4, 0, reinterpret_cast<struct sockaddr *>(&to), sizeof to),
        0);
    EXPECT_REFUSED(ZEPO_Recvfrom(udp.get(), nullptr, 4, 0,
                                 reinterpret_cast<struct sockaddr *>(&from), &fromlen),
                   0);
    EXPECT_REFUSED(ZEPO_Recvfrom(-1, nullptr, 4, 0, nullptr, nullptr), 0);
    EXPECT_EQ(fromlen, sizeof from);
}

TEST(Socket, ConnectAndBindRefuseANullAddressWithoutCallingTheService) {
    Fd fd(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(fd.get(), 0);
    const int before = connect_count.load();
    EXPECT_REFUSED(ZEPO_Connect(fd.get(), nullptr, sizeof(struct sockaddr_in)), -1);
    EXPECT_REFUSED(ZEPO_Bind(fd.get(), nullptr, sizeof(struct sockaddr_in)), -1);
    EXPECT_EQ(connect_count.load(), before);
    // The socket is still unbound: nothing was done to it.
    struct sockaddr_in a;
    socklen_t len = sizeof a;
    ASSERT_EQ(::getsockname(fd.get(), reinterpret_cast<struct sockaddr *>(&a), &len), 0);
    EXPECT_EQ(a.sin_port, 0);
}

TEST(Socket, GetSockNameAndGetPeerNameRefuseANullAddressOrLength) {
    Pair p = connected_pair();
    ASSERT_GE(p.server.get(), 0);
    struct sockaddr_storage a;
    socklen_t len = sizeof a;
    auto *sa = reinterpret_cast<struct sockaddr *>(&a);
    EXPECT_REFUSED(ZEPO_GetSockName(p.client.get(), nullptr, &len), -1);
    EXPECT_REFUSED(ZEPO_GetSockName(p.client.get(), sa, nullptr), -1);
    EXPECT_REFUSED(ZEPO_GetPeerName(p.client.get(), nullptr, &len), -1);
    EXPECT_REFUSED(ZEPO_GetPeerName(p.client.get(), sa, nullptr), -1);
    EXPECT_EQ(len, sizeof a);
}

TEST(Socket, GetSockOptRefusesANullValueOrLengthAndSetSockOptANullValue) {
    Fd fd(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(fd.get(), 0);
    int value = 77;
    socklen_t len = sizeof value;
    EXPECT_REFUSED(ZEPO_GetSockOpt(fd.get(), SOL_SOCKET, SO_REUSEADDR, nullptr, &len), -1);
    EXPECT_REFUSED(ZEPO_GetSockOpt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &value, nullptr), -1);
    EXPECT_REFUSED(ZEPO_SetSockOpt(fd.get(), SOL_SOCKET, SO_REUSEADDR, nullptr, sizeof value), -1);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(len, sizeof value);
}

TEST(Socket, GetHostNameRefusesANullName) {
    EXPECT_REFUSED(ZEPO_GetHostName(nullptr, 64), -1);
    EXPECT_REFUSED(ZEPO_GetHostName(nullptr, 0), -1);
}

TEST(Socket, GetHostByNameRefusesNullAndEmptyNames) {
    EXPECT_REFUSED(ZEPO_GetHostByName(nullptr), nullptr);
    EXPECT_REFUSED(ZEPO_GetHostByName(""), nullptr);
}

TEST(Socket, GetHostByNameSRefusesNullOrEmptyNameNullEntryAndNullBuffer) {
    struct hostent entry;
    char buf[1024];
    struct hostent *result = reinterpret_cast<struct hostent *>(&buf[1]);
    int32_t herr = 555;
    EXPECT_REFUSED(ZEPO_GetHostByName_S(nullptr, &entry, buf, sizeof buf, &result, &herr), -1);
    EXPECT_REFUSED(ZEPO_GetHostByName_S("", &entry, buf, sizeof buf, &result, &herr), -1);
    EXPECT_REFUSED(ZEPO_GetHostByName_S("localhost", nullptr, buf, sizeof buf, &result, &herr), -1);
    EXPECT_REFUSED(ZEPO_GetHostByName_S("localhost", &entry, nullptr, sizeof buf, &result, &herr),
                   -1);
    // Nothing was written through the result pointers.
    EXPECT_EQ(result, reinterpret_cast<struct hostent *>(&buf[1]));
    EXPECT_EQ(herr, 555);
}

TEST(Socket, InetAddrOfNullGivesZeroNotTheErrorValue) {
    EXPECT_REFUSED(ZEPO_InetAddr(nullptr), 0u);
    EXPECT_NE(ZEPO_InetAddr(nullptr), INADDR_NONE);
}

TEST(Socket, InetPtonRefusesANullTextOrDestinationWithZero) {
    unsigned char dst[16];
    std::memset(dst, 0xA5, sizeof dst);
    EXPECT_REFUSED(ZEPO_Inet_Pton(AF_INET, nullptr, dst), 0);
    EXPECT_REFUSED(ZEPO_Inet_Pton(AF_INET6, nullptr, dst), 0);
    EXPECT_REFUSED(ZEPO_Inet_Pton(AF_INET, "127.0.0.1", nullptr), 0);
    EXPECT_REFUSED(ZEPO_Inet_Pton(99, "127.0.0.1", nullptr), 0);
    for (unsigned char b : dst) EXPECT_EQ(b, 0xA5);
}

TEST(Socket, InetNtopRefusesANullSourceOrBuffer) {
    const unsigned char src[16] = {127, 0, 0, 1};
    char buf[INET6_ADDRSTRLEN];
    std::memset(buf, 'z', sizeof buf);
    EXPECT_REFUSED(ZEPO_Inet_Ntop(AF_INET, nullptr, buf, sizeof buf), nullptr);
    EXPECT_REFUSED(ZEPO_Inet_Ntop(AF_INET, src, nullptr, sizeof buf), nullptr);
    EXPECT_REFUSED(ZEPO_Inet_Ntop(AF_INET6, src, nullptr, sizeof buf), nullptr);
    EXPECT_EQ(buf[0], 'z');
}

TEST(Socket, GetAddrInfoRefusesANullListPointer) {
    EXPECT_REFUSED(ZEPO_GetAddrInfo("127.0.0.1", nullptr, nullptr, nullptr), -1);
    EXPECT_REFUSED(ZEPO_GetAddrInfo(nullptr, "80", nullptr, nullptr), -1);
}

// ==== Results and errno of the service =======================================================

TEST(Socket, ServiceFailuresComeBackWithTheServicesErrno) {
    // A descriptor number that is surely closed.
    Fd probe(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(probe.get(), 0);
    const int closed = probe.get();
    probe.reset();

    struct sockaddr_in a = loopback4(9);
    auto *sa = reinterpret_cast<struct sockaddr *>(&a);
    socklen_t len = sizeof a;
    int value = 0;
    socklen_t vlen = sizeof value;
    char text[8] = {};

    EXPECT_SAME_AS_SERVICE(ZEPO_Socket(12345, SOCK_STREAM, 0), ::socket(12345, SOCK_STREAM, 0));
    EXPECT_SAME_AS_SERVICE(ZEPO_Connect(closed, sa, sizeof a), ::connect(closed, sa, sizeof a));
    EXPECT_SAME_AS_SERVICE(ZEPO_Bind(closed, sa, sizeof a), ::bind(closed, sa, sizeof a));
    EXPECT_SAME_AS_SERVICE(ZEPO_Listen(closed, 4), ::listen(closed, 4));
    EXPECT_SAME_AS_SERVICE(ZEPO_Accept(closed, nullptr, nullptr),
                           ::accept(closed, nullptr, nullptr));
    EXPECT_SAME_AS_SERVICE(ZEPO_Send(closed, text, 1, 0), ::send(closed, text, 1, 0));
    EXPECT_SAME_AS_SERVICE(ZEPO_Recv(closed, text, 1, 0), ::recv(closed, text, 1, 0));
    EXPECT_SAME_AS_SERVICE(ZEPO_Sendto(closed, text, 1, 0, sa, sizeof a),
                           ::sendto(closed, text, 1, 0, sa, sizeof a));
    EXPECT_SAME_AS_SERVICE(ZEPO_Recvfrom(closed, text, 1, 0, nullptr, nullptr),
                           ::recvfrom(closed, text, 1, 0, nullptr, nullptr));
    EXPECT_SAME_AS_SERVICE(ZEPO_GetSockName(closed, sa, &len), ::getsockname(closed, sa, &len));
    EXPECT_SAME_AS_SERVICE(ZEPO_GetPeerName(closed, sa, &len), ::getpeername(closed, sa, &len));
    EXPECT_SAME_AS_SERVICE(ZEPO_GetSockOpt(closed, SOL_SOCKET, SO_TYPE, &value, &vlen),
                           ::getsockopt(closed, SOL_SOCKET, SO_TYPE, &value, &vlen));
    EXPECT_SAME_AS_SERVICE(ZEPO_SetSockOpt(closed, SOL_SOCKET, SO_REUSEADDR, &value, sizeof value),
                           ::setsockopt(closed, SOL_SOCKET, SO_REUSEADDR, &value, sizeof value));
    EXPECT_SAME_AS_SERVICE(ZEPO_IoctlSocket(closed, FIONREAD, &value),
                           ::ioctl(closed, FIONREAD, &value));
    EXPECT_SAME_AS_SERVICE(ZEPO_CloseSocket(closed), ::close(closed));
    EXPECT_SAME_AS_SERVICE(ZEPO_Select(-1, nullptr, nullptr, nullptr, nullptr),
                           ::select(-1, nullptr, nullptr, nullptr, nullptr));
}

TEST(Socket, SendWithNegativeLengthHandsTheServiceAHugeLengthAndFails) {
    Pair p = connected_pair();
    ASSERT_GE(p.server.get(), 0);
    // A buffer that is not null but cannot be read: whatever length arrives, no byte is sent.
    void *page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    const int before = send_count.load();
    errno = 0;
    int64_t r = ZEPO_Send(p.client.get(), page, -1, MSG_DONTWAIT);
    int err = errno;
    EXPECT_EQ(send_count.load(), before + 1);
    EXPECT_EQ(last_send_len, SIZE_MAX) << "-1 was not sign-extended to the 64-bit length";
    EXPECT_EQ(r, -1);
    EXPECT_NE(err, 0);
    ::munmap(page, 4096);
    // Nothing reached the peer.
    char c;
    EXPECT_EQ(::recv(p.server.get(), &c, 1, MSG_DONTWAIT), -1);
}

TEST(Socket, RecvWithNegativeLengthHandsTheServiceAHugeLength) {
    Pair p = connected_pair();
    ASSERT_GE(p.server.get(), 0);
    void *page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    const int before = recv_count.load();
    errno = 0;
    int64_t r = ZEPO_Recv(p.server.get(), page, INT32_MIN, MSG_DONTWAIT);
    EXPECT_EQ(recv_count.load(), before + 1);
    EXPECT_EQ(last_recv_len, static_cast<size_t>(static_cast<int64_t>(INT32_MIN)));
    EXPECT_EQ(r, -1);
    EXPECT_NE(errno, 0);
    ::munmap(page, 4096);
}

TEST(Socket, IoctlSocketSignExtendsTheRequest) {
    Fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_GE(fd.get(), 0);
    int value = 0;
    const int before = ioctl_count.load();
    // A request with the top bit set that no socket knows.
    const int32_t request = static_cast<int32_t>(0xC0DE7FFFu);
    errno = 0;
    EXPECT_EQ(ZEPO_IoctlSocket(fd.get(), request, &value), -1);
    EXPECT_NE(errno, 0);
    EXPECT_EQ(ioctl_count.load(), before + 1);
    EXPECT_EQ(last_ioctl_request, 0xFFFFFFFFC0DE7FFFul);
    // A plain request goes through as it is.
    EXPECT_EQ(ZEPO_IoctlSocket(fd.get(), FIONREAD, &value), 0);
    EXPECT_EQ(last_ioctl_request, static_cast<unsigned long>(FIONREAD));
    EXPECT_EQ(value, 0);
}

// ==== Real sockets on the loopback addresses =================================================

TEST(Socket, TcpOverIpv4LoopbackConnectsAcceptsAndCarriesDataBothWays) {
    // The server, made with the wrappers.
    int listener = ZEPO_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    Fd listener_owner(listener);
    struct sockaddr_in any = loopback4(0);
    ASSERT_EQ(ZEPO_Bind(listener, reinterpret_cast<struct sockaddr *>(&any), sizeof any), 0);
    ASSERT_EQ(ZEPO_Listen(listener, 4), 0);
    struct sockaddr_in bound;
    socklen_t blen = sizeof bound;
    ASSERT_EQ(ZEPO_GetSockName(listener, reinterpret_cast<struct sockaddr *>(&bound), &blen), 0);
    EXPECT_EQ(blen, sizeof bound);
    EXPECT_EQ(bound.sin_family, AF_INET);
    EXPECT_EQ(bound.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    ASSERT_NE(bound.sin_port, 0);
    EXPECT_EQ(ntohs(bound.sin_port), port_of(listener));

    // The client.
    int client = ZEPO_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(client, 0);
    Fd client_owner(client);
    ASSERT_EQ(ZEPO_Connect(client, reinterpret_cast<struct sockaddr *>(&bound), sizeof bound), 0);

    // The listener becomes readable; the connection is accepted with the peer's address.
    fd_set reads;
    FD_ZERO(&reads);
    FD_SET(listener, &reads);
    struct timeval tv = {20, 0};
    ASSERT_EQ(ZEPO_Select(listener + 1, &reads, nullptr, nullptr, &tv), 1);
    EXPECT_TRUE(FD_ISSET(listener, &reads));
    struct sockaddr_in peer;
    socklen_t plen = sizeof peer;
    int server = ZEPO_Accept(listener, reinterpret_cast<struct sockaddr *>(&peer), &plen);
    ASSERT_GE(server, 0);
    Fd server_owner(server);
    EXPECT_EQ(plen, sizeof peer);
    EXPECT_EQ(peer.sin_family, AF_INET);
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(peer.sin_port), port_of(client));

    // Each end names the other.
    struct sockaddr_in seen;
    socklen_t slen = sizeof seen;
    ASSERT_EQ(ZEPO_GetPeerName(client, reinterpret_cast<struct sockaddr *>(&seen), &slen), 0);
    EXPECT_EQ(seen.sin_port, bound.sin_port);
    EXPECT_EQ(seen.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    slen = sizeof seen;
    ASSERT_EQ(ZEPO_GetPeerName(server, reinterpret_cast<struct sockaddr *>(&seen), &slen), 0);
    EXPECT_EQ(seen.sin_port, peer.sin_port);

    // Data one way and back.
    EXPECT_EQ(ZEPO_Send(client, "hello", 5, 0), 5);
    EXPECT_EQ(last_send_len, 5u);
    ASSERT_TRUE(wait_until([&] {
        int pending = 0;
        return ZEPO_IoctlSocket(server, FIONREAD, &pending) == 0 && pending == 5;
    }));
    char buf[16] = {};
    EXPECT_EQ(ZEPO_Recv(server, buf, sizeof buf, 0), 5);
    EXPECT_EQ(last_recv_len, sizeof buf);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(ZEPO_Send(server, "world!", 6, 0), 6);
    ASSERT_TRUE(wait_readable(client));
    std::memset(buf, 0, sizeof buf);
    std::string got;
    while (got.size() < 6) {
        ASSERT_TRUE(wait_readable(client));
        int64_t n = ZEPO_Recv(client, buf, sizeof buf, 0);
        ASSERT_GT(n, 0);
        got.append(buf, static_cast<size_t>(n));
    }
    EXPECT_EQ(got, "world!");

    // Closing one end reads as the end of the stream at the other.
    EXPECT_EQ(ZEPO_CloseSocket(server_owner.release()), 0);
    ASSERT_TRUE(wait_readable(client));
    EXPECT_EQ(ZEPO_Recv(client, buf, sizeof buf, 0), 0);
}

TEST(Socket, TcpOverIpv6LoopbackConnectsAcceptsAndCarriesData) {
    int listener = ZEPO_Socket(AF_INET6, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    Fd listener_owner(listener);
    struct sockaddr_in6 any = loopback6(0);
    ASSERT_EQ(ZEPO_Bind(listener, reinterpret_cast<struct sockaddr *>(&any), sizeof any), 0);
    ASSERT_EQ(ZEPO_Listen(listener, 4), 0);
    struct sockaddr_in6 bound;
    socklen_t blen = sizeof bound;
    ASSERT_EQ(ZEPO_GetSockName(listener, reinterpret_cast<struct sockaddr *>(&bound), &blen), 0);
    EXPECT_EQ(blen, sizeof bound);
    EXPECT_EQ(bound.sin6_family, AF_INET6);
    EXPECT_EQ(std::memcmp(&bound.sin6_addr, &in6addr_loopback, 16), 0);
    ASSERT_NE(bound.sin6_port, 0);

    int client = ZEPO_Socket(AF_INET6, SOCK_STREAM, 0);
    ASSERT_GE(client, 0);
    Fd client_owner(client);
    ASSERT_EQ(ZEPO_Connect(client, reinterpret_cast<struct sockaddr *>(&bound), sizeof bound), 0);
    ASSERT_TRUE(wait_readable(listener));
    struct sockaddr_in6 peer;
    socklen_t plen = sizeof peer;
    int server = ZEPO_Accept(listener, reinterpret_cast<struct sockaddr *>(&peer), &plen);
    ASSERT_GE(server, 0);
    Fd server_owner(server);
    EXPECT_EQ(peer.sin6_family, AF_INET6);
    EXPECT_EQ(std::memcmp(&peer.sin6_addr, &in6addr_loopback, 16), 0);
    EXPECT_EQ(ntohs(peer.sin6_port), port_of(client));

    EXPECT_EQ(ZEPO_Send(client, "six", 3, 0), 3);
    std::string got;
    char buf[8];
    while (got.size() < 3) {
        ASSERT_TRUE(wait_readable(server));
        int64_t n = ZEPO_Recv(server, buf, sizeof buf, 0);
        ASSERT_GT(n, 0);
        got.append(buf, static_cast<size_t>(n));
    }
    EXPECT_EQ(got, "six");
}

TEST(Socket, AcceptTakesANullAddressAndLength) {
    Server s = listening_server(AF_INET);
    ASSERT_GE(s.fd.get(), 0);
    Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    struct sockaddr_in a = loopback4(s.port);
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<struct sockaddr *>(&a), sizeof a), 0);
    ASSERT_TRUE(wait_readable(s.fd.get()));
    Fd server(ZEPO_Accept(s.fd.get(), nullptr, nullptr));
    ASSERT_GE(server.get(), 0);
    EXPECT_EQ(port_of(server.get()), s.port);
}

TEST(Socket, UdpOverLoopbackCarriesDatagramsThroughSendtoAndRecvfrom) {
    Fd a(ZEPO_Socket(AF_INET, SOCK_DGRAM, 0));
    Fd b(ZEPO_Socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_GE(a.get(), 0);
    ASSERT_GE(b.get(), 0);
    struct sockaddr_in any = loopback4(0);
    ASSERT_EQ(ZEPO_Bind(a.get(), reinterpret_cast<struct sockaddr *>(&any), sizeof any), 0);
    ASSERT_EQ(ZEPO_Bind(b.get(), reinterpret_cast<struct sockaddr *>(&any), sizeof any), 0);
    struct sockaddr_in to_b = loopback4(port_of(b.get()));

    EXPECT_EQ(
        ZEPO_Sendto(a.get(), "ping", 4, 0, reinterpret_cast<struct sockaddr *>(&to_b), sizeof to_b),
        4);
    ASSERT_TRUE(wait_readable(b.get()));
    char buf[32] = {};
    struct sockaddr_in from;
    std::memset(&from, 0, sizeof from);
    socklen_t fromlen = sizeof from;
    EXPECT_EQ(ZEPO_Recvfrom(b.get(), buf, sizeof buf, 0, reinterpret_cast<struct sockaddr *>(&from),
                            &fromlen),
              4);
    EXPECT_STREQ(buf, "ping");
    EXPECT_EQ(fromlen, sizeof from);
    EXPECT_EQ(from.sin_family, AF_INET);
    EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(from.sin_port), port_of(a.get()));

    // The reply goes to the address recvfrom reported.
    EXPECT_EQ(
        ZEPO_Sendto(b.get(), "pong!", 5, 0, reinterpret_cast<struct sockaddr *>(&from), fromlen),
        5);
    ASSERT_TRUE(wait_readable(a.get()));
    std::memset(buf, 0, sizeof buf);
    EXPECT_EQ(ZEPO_Recvfrom(a.get(), buf, sizeof buf, 0, nullptr, nullptr), 5);
    EXPECT_STREQ(buf, "pong!");
}

TEST(Socket, SelectReportsReadabilityOnlyOnceDataArrives) {
    Pair p = connected_pair();
    ASSERT_GE(p.server.get(), 0);
    const int fd = p.server.get();
    fd_set reads;
    FD_ZERO(&reads);
    FD_SET(fd, &reads);
    struct timeval zero = {0, 0};
    EXPECT_EQ(ZEPO_Select(fd + 1, &reads, nullptr, nullptr, &zero), 0);
    EXPECT_FALSE(FD_ISSET(fd, &reads));

    ASSERT_EQ(::send(p.client.get(), "abc", 3, 0), 3);
    FD_ZERO(&reads);
    FD_SET(fd, &reads);
    struct timeval tv = {20, 0};
    EXPECT_EQ(ZEPO_Select(fd + 1, &reads, nullptr, nullptr, &tv), 1);
    EXPECT_TRUE(FD_ISSET(fd, &reads));

    // A writable socket counts once in the write set too.
    fd_set writes;
    FD_ZERO(&writes);
    FD_SET(p.client.get(), &writes);
    struct timeval tv2 = {20, 0};
    EXPECT_EQ(ZEPO_Select(p.client.get() + 1, nullptr, &writes, nullptr, &tv2), 1);
    EXPECT_TRUE(FD_ISSET(p.client.get(), &writes));
}

TEST(Socket, SelectWithNoSetsWaitsForTheTimeoutAndGivesZero) {
    struct timeval tv = {0, 20000};
    const struct timespec start = monotonic_now();
    EXPECT_EQ(ZEPO_Select(0, nullptr, nullptr, nullptr, &tv), 0);
    EXPECT_GE(seconds_since(start), 0.015);
}

TEST(Socket, ReuseAddrOptionIsSetAndReadBack) {
    Fd fd(ZEPO_Socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(fd.get(), 0);
    int on = 1;
    ASSERT_EQ(ZEPO_SetSockOpt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    int value = 0;
    socklen_t len = sizeof value;
    ASSERT_EQ(ZEPO_GetSockOpt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &value, &len), 0);
    EXPECT_NE(value, 0);
    EXPECT_EQ(len, sizeof value);
    int direct = 0;
    socklen_t dlen = sizeof direct;
    ASSERT_EQ(::getsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &direct, &dlen), 0);
    EXPECT_NE(direct, 0);

    int off = 0;
    ASSERT_EQ(ZEPO_SetSockOpt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &off, sizeof off), 0);
    value = 99;
    len = sizeof value;
    ASSERT_EQ(ZEPO_GetSockOpt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &value, &len), 0);
    EXPECT_EQ(value, 0);
}

TEST(Socket, IoctlSocketFionreadCountsTheBytesWaiting) {
    Fd a(::socket(AF_INET, SOCK_DGRAM, 0));
    Fd b(::socket(AF_INET, SOCK_DGRAM, 0));
    struct sockaddr_in any = loopback4(0);
    ASSERT_EQ(::bind(b.get(), reinterpret_cast<struct sockaddr *>(&any), sizeof any), 0);
    struct sockaddr_in to = loopback4(port_of(b.get()));
    int pending = -1;
    ASSERT_EQ(ZEPO_IoctlSocket(b.get(), FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 0);
    ASSERT_EQ(
        ::sendto(a.get(), "1234567", 7, 0, reinterpret_cast<struct sockaddr *>(&to), sizeof to), 7);
    ASSERT_TRUE(wait_readable(b.get()));
    ASSERT_EQ(ZEPO_IoctlSocket(b.get(), FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 7);
}

TEST(Socket, CloseSocketClosesOnceAndThenFailsWithEbadf) {
    int fd = ZEPO_Socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ZEPO_CloseSocket(fd), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    errno = 0;
    EXPECT_EQ(ZEPO_CloseSocket(fd), -1);
    EXPECT_EQ(errno, EBADF);
}

// ==== Connecting to numeric addresses ========================================================

TEST(Socket, ConnectAddConnectsWithA16ByteIpv4AddressInNetworkOrder) {
    Server s = listening_server(AF_INET);
    ASSERT_GE(s.fd.get(), 0);
    Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(client.get(), 0);
    const int before = connect_count.load();
    EXPECT_EQ(ZEPO_ConnectAdd(client.get(), INADDR_LOOPBACK, s.port), 0);
    ASSERT_EQ(connect_count.load(), before + 1);
    EXPECT_EQ(last_connect.fd, client.get());
    EXPECT_EQ(last_connect.len, 16u);
    EXPECT_EQ(family_in(last_connect.bytes), AF_INET);
    EXPECT_EQ(last_connect.bytes[2], s.port >> 8);
    EXPECT_EQ(last_connect.bytes[3], s.port & 0xFF);
    const unsigned char loop[4] = {127, 0, 0, 1};
    EXPECT_EQ(hex(last_connect.bytes + 4, 4), hex(loop, 4));

    struct sockaddr_storage peer;
    Fd server = accept_one(s.fd.get(), &peer);
    ASSERT_GE(server.get(), 0);
    EXPECT_EQ(ntohs(reinterpret_cast<struct sockaddr_in *>(&peer)->sin_port),
              port_of(client.get()));
}

TEST(Socket, ConnectAddUsesOnlyTheLowSixteenBitsOfThePort) {
    Server s = listening_server(AF_INET);
    ASSERT_GE(s.fd.get(), 0);
    Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(ZEPO_ConnectAdd(client.get(), INADDR_LOOPBACK, 0xABC50000u | s.port), 0);
    EXPECT_EQ(last_connect.bytes[2], s.port >> 8);
    EXPECT_EQ(last_connect.bytes[3], s.port & 0xFF);
    Fd server = accept_one(s.fd.get());
    EXPECT_GE(server.get(), 0);
}

TEST(Socket, ConnectAddGivesConnectsFailureWhenNothingListens) {
    // A port held bound but not listening: connecting to it is refused by the system.
    Fd holder(::socket(AF_INET, SOCK_STREAM, 0));
    struct sockaddr_in any = loopback4(0);
    ASSERT_EQ(::bind(holder.get(), reinterpret_cast<struct sockaddr *>(&any), sizeof any), 0);
    Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    errno = 0;
    EXPECT_EQ(ZEPO_ConnectAdd(client.get(), INADDR_LOOPBACK, port_of(holder.get())), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(Socket, ConnectAdd6WithFamily2ConnectsWithACleared16ByteAddress) {
    Server s = listening_server(AF_INET);
    ASSERT_GE(s.fd.get(), 0);
    Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    const uint32_t host_order = INADDR_LOOPBACK;  // 0x7f000001, read as a value at the pointer
    const int before = connect_count.load();
    EXPECT_EQ(ZEPO_ConnectAdd6(client.get(), 2, &host_order, s.port), 0);
    ASSERT_EQ(connect_count.load(), before + 1);
    EXPECT_EQ(last_connect.len, 16u);
    EXPECT_EQ(family_in(last_connect.bytes), AF_INET);
    EXPECT_EQ(last_connect.bytes[2], s.port >> 8);
    EXPECT_EQ(last_connect.bytes[3], s.port & 0xFF);
    const unsigned char expected[12] = {127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(hex(last_connect.bytes + 4, 12), hex(expected, 12)) << "address or trailing bytes";

    Fd server = accept_one(s.fd.get());
    EXPECT_GE(server.get(), 0);
}

TEST(Socket, ConnectAdd6WithFamily10ConnectsWithA28ByteIpv6Address) {
    Server s = listening_server(AF_INET6);
    ASSERT_GE(s.fd.get(), 0);
    Fd client(::socket(AF_INET6, SOCK_STREAM, 0));
    const int before = connect_count.load();
    EXPECT_EQ(ZEPO_ConnectAdd6(client.get(), 10, &in6addr_loopback, s.port), 0);
    ASSERT_EQ(connect_count.load(), before + 1);
    EXPECT_EQ(last_connect.len, 28u);
    EXPECT_EQ(family_in(last_connect.bytes), AF_INET6);
    EXPECT_EQ(last_connect.bytes[2], s.port >> 8);
    EXPECT_EQ(last_connect.bytes[3], s.port & 0xFF);
    const unsigned char zero4[4] = {};
    EXPECT_EQ(hex(last_connect.bytes + 4, 4), hex(zero4, 4)) << "flow information";
    EXPECT_EQ(hex(last_connect.bytes + 8, 16), hex(&in6addr_loopback, 16));
    EXPECT_EQ(hex(last_connect.bytes + 24, 4), hex(zero4, 4)) << "scope id";

    struct sockaddr_storage peer;
    Fd server = accept_one(s.fd.get(), &peer);
    ASSERT_GE(server.get(), 0);
    EXPECT_EQ(peer.ss_family, AF_INET6);
}

TEST(Socket, ConnectAdd6TakesAnyOtherFamilyAsIpv6) {
    for (int32_t family : {0, 99, -1}) {
        SCOPED_TRACE(family);
        Server s = listening_server(AF_INET6);
        ASSERT_GE(s.fd.get(), 0);
        Fd client(::socket(AF_INET6, SOCK_STREAM, 0));
        const int before = connect_count.load();
        EXPECT_EQ(ZEPO_ConnectAdd6(client.get(), family, &in6addr_loopback, s.port), 0);
        ASSERT_EQ(connect_count.load(), before + 1);
        EXPECT_EQ(last_connect.len, 28u);
        EXPECT_EQ(family_in(last_connect.bytes), AF_INET6);
        EXPECT_EQ(last_connect.bytes[2], s.port >> 8);
        EXPECT_EQ(last_connect.bytes[3], s.port & 0xFF);
        EXPECT_EQ(hex(last_connect.bytes + 8, 16), hex(&in6addr_loopback, 16));
        Fd server = accept_one(s.fd.get());
        EXPECT_GE(server.get(), 0);
    }
}

TEST(Socket, ConnectFunctionsAndInetNtoaPrintNoFailureTraceOnNormalCalls) {
    Server s4 = listening_server(AF_INET);
    Server s6 = listening_server(AF_INET6);
    ASSERT_GE(s4.fd.get(), 0);
    ASSERT_GE(s6.fd.get(), 0);
    Fd c1(::socket(AF_INET, SOCK_STREAM, 0));
    Fd c2(::socket(AF_INET, SOCK_STREAM, 0));
    Fd c3(::socket(AF_INET6, SOCK_STREAM, 0));
    const uint32_t host_order = INADDR_LOOPBACK;
    CaptureStdout();
    const int32_t r1 = ZEPO_ConnectAdd(c1.get(), INADDR_LOOPBACK, s4.port);
    const int32_t r2 = ZEPO_ConnectAdd6(c2.get(), 2, &host_order, s4.port);
    const int32_t r3 = ZEPO_ConnectAdd6(c3.get(), 10, &in6addr_loopback, s6.port);
    const std::string text = ZEPO_InetNtoa(htonl(0x0A000203));
    std::fflush(stdout);
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(r1, 0);
    EXPECT_EQ(r2, 0);
    EXPECT_EQ(r3, 0);
    EXPECT_EQ(text, "10.0.2.3");
    EXPECT_EQ(out, "");
    Fd a1 = accept_one(s4.fd.get());
    Fd a2 = accept_one(s4.fd.get());
    Fd a3 = accept_one(s6.fd.get());
    EXPECT_GE(a1.get(), 0);
    EXPECT_GE(a2.get(), 0);
    EXPECT_GE(a3.get(), 0);
}

// ==== Address text ===========================================================================

TEST(Socket, InetAddrGivesTheAddressInNetworkOrder) {
    EXPECT_EQ(ZEPO_InetAddr("127.0.0.1"), htonl(0x7F000001));
    EXPECT_EQ(ZEPO_InetAddr("192.168.1.20"), htonl(0xC0A80114));
    EXPECT_EQ(ZEPO_InetAddr("no address"), INADDR_NONE);
}

TEST(Socket, InetNtoaGivesTheTextOfAnAddressInNetworkOrder) {
    EXPECT_STREQ(ZEPO_InetNtoa(htonl(0x7F000001)), "127.0.0.1");
    EXPECT_STREQ(ZEPO_InetNtoa(htonl(0xC0A80114)), "192.168.1.20");
    EXPECT_STREQ(ZEPO_InetNtoa(ZEPO_InetAddr("10.20.30.40")), "10.20.30.40");
    EXPECT_STREQ(ZEPO_InetNtoa(0), "0.0.0.0");
    EXPECT_STREQ(ZEPO_InetNtoa(0xFFFFFFFFu), "255.255.255.255");
    // The text lives in the C library's own static buffer.
    struct in_addr a;
    a.s_addr = htonl(0x01020304);
    EXPECT_EQ(ZEPO_InetNtoa(htonl(0x01020304)), ::inet_ntoa(a));
}

TEST(Socket, InetPtonAndNtopRoundTripIpv4Text) {
    unsigned char bytes[4] = {};
    EXPECT_EQ(ZEPO_Inet_Pton(AF_INET, "192.168.7.9", bytes), 1);
    const unsigned char expected[4] = {192, 168, 7, 9};
    EXPECT_EQ(hex(bytes, 4), hex(expected, 4));
    char buf[INET_ADDRSTRLEN];
    EXPECT_EQ(ZEPO_Inet_Ntop(AF_INET, bytes, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "192.168.7.9");
}

TEST(Socket, InetPtonAndNtopRoundTripIpv6Text) {
    unsigned char bytes[16] = {};
    EXPECT_EQ(ZEPO_Inet_Pton(AF_INET6, "2001:db8::a:1", bytes), 1);
    const unsigned char expected[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0,    0, 0,
                                        0,    0,    0,    0,    0, 0x0a, 0, 1};
    EXPECT_EQ(hex(bytes, 16), hex(expected, 16));
    char buf[INET6_ADDRSTRLEN];
    EXPECT_EQ(ZEPO_Inet_Ntop(AF_INET6, bytes, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "2001:db8::a:1");
    EXPECT_EQ(ZEPO_Inet_Pton(10, "::1", bytes), 1);
    EXPECT_EQ(hex(bytes, 16), hex(&in6addr_loopback, 16));
    EXPECT_STREQ(ZEPO_Inet_Ntop(10, bytes, buf, sizeof buf), "::1");
}

TEST(Socket, InetPtonOfBadTextGivesZeroAndOfAnUnknownFamilyMinusOne) {
    unsigned char bytes[16];
    EXPECT_EQ(ZEPO_Inet_Pton(AF_INET, "300.1.1.1", bytes), 0);
    EXPECT_EQ(ZEPO_Inet_Pton(AF_INET6, "1.2.3.4", bytes), 0);
    EXPECT_SAME_AS_SERVICE(ZEPO_Inet_Pton(99, "1.2.3.4", bytes), ::inet_pton(99, "1.2.3.4", bytes));
    errno = 0;
    EXPECT_EQ(ZEPO_Inet_Pton(99, "1.2.3.4", bytes), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
}

TEST(Socket, InetNtopIntoATooShortBufferGivesNullWithEnospc) {
    const unsigned char bytes[4] = {192, 168, 100, 200};
    char buf[8];
    errno = 0;
    EXPECT_EQ(ZEPO_Inet_Ntop(AF_INET, bytes, buf, sizeof buf), nullptr);
    EXPECT_EQ(errno, ENOSPC);
}

// ==== Host names =============================================================================

TEST(Socket, GetHostNameGivesWhatGethostnameGives) {
    char mine[256];
    char theirs[256];
    std::memset(mine, 'q', sizeof mine);
    ASSERT_EQ(::gethostname(theirs, sizeof theirs), 0);
    EXPECT_EQ(ZEPO_GetHostName(mine, sizeof mine), 0);
    EXPECT_STREQ(mine, theirs);
    EXPECT_GT(std::strlen(mine), 0u);
}

TEST(Socket, GetHostByNameOfLocalhostGivesTheLoopbackAddress) {
    struct hostent *h = ZEPO_GetHostByName("localhost");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->h_addrtype, AF_INET);
    EXPECT_EQ(h->h_length, 4);
    ASSERT_NE(h->h_addr_list[0], nullptr);
    const unsigned char loop[4] = {127, 0, 0, 1};
    EXPECT_EQ(hex(h->h_addr_list[0], 4), hex(loop, 4));
    // The entry is the C library's static one.
    EXPECT_EQ(h, ::gethostbyname("localhost"));
}

TEST(Socket, GetHostByNameOfANameThatDoesNotResolveGivesNull) {
    const struct timespec start = monotonic_now();
    EXPECT_EQ(ZEPO_GetHostByName("no-such-host.invalid"), nullptr);
    EXPECT_LT(seconds_since(start), 30.0);
}

TEST(Socket, GetHostByNameSOfLocalhostFillsTheCallersEntry) {
    struct hostent entry;
    std::memset(&entry, 0, sizeof entry);
    char buf[2048];
    struct hostent *result = nullptr;
    int32_t herr = -77;
    EXPECT_EQ(ZEPO_GetHostByName_S("localhost", &entry, buf, sizeof buf, &result, &herr), 0);
    ASSERT_EQ(result, &entry);
    EXPECT_EQ(entry.h_addrtype, AF_INET);
    EXPECT_EQ(entry.h_length, 4);
    ASSERT_NE(entry.h_addr_list, nullptr);
    ASSERT_NE(entry.h_addr_list[0], nullptr);
    const unsigned char loop[4] = {127, 0, 0, 1};
    EXPECT_EQ(hex(entry.h_addr_list[0], 4), hex(loop, 4));
    // The entry's data lies in the caller's buffer.
    EXPECT_GE(entry.h_addr_list[0], buf);
    EXPECT_LT(entry.h_addr_list[0], buf + sizeof buf);
}

TEST(Socket, GetHostByNameSGivesTheServicesResultForATooSmallBuffer) {
    struct hostent entry;
    char buf[4];
    struct hostent *result = &entry;
    int32_t herr = 0;
    EXPECT_EQ(ZEPO_GetHostByName_S("localhost", &entry, buf, sizeof buf, &result, &herr), ERANGE);
    EXPECT_EQ(result, nullptr);
}

// ==== Address-information lists ==============================================================

TEST(Socket, AddrInfoRecordMirrorsTheCLibraryNodeWithTheTwoPointersExchanged) {
    static_assert(sizeof(ZEPO_ADDRINFO) == sizeof(struct addrinfo));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_flags) == offsetof(struct addrinfo, ai_flags));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_family) == offsetof(struct addrinfo, ai_family));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_socktype) == offsetof(struct addrinfo, ai_socktype));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_protocol) == offsetof(struct addrinfo, ai_protocol));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_addrlen) == offsetof(struct addrinfo, ai_addrlen));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_canonname) == offsetof(struct addrinfo, ai_addr));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_addr) == offsetof(struct addrinfo, ai_canonname));
    static_assert(offsetof(ZEPO_ADDRINFO, ai_next) == offsetof(struct addrinfo, ai_next));
    EXPECT_LT(offsetof(ZEPO_ADDRINFO, ai_canonname), offsetof(ZEPO_ADDRINFO, ai_addr));
}

TEST(Socket, GetAddrInfoOfANameThatDoesNotResolveGivesMinusOneNotTheResolversCode) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    // What the resolver itself says, for comparison: a code other than -1.
    struct addrinfo *direct = nullptr;
    const struct timespec start = monotonic_now();
    const int code = ::getaddrinfo("no-such-host.invalid", nullptr, &hints, &direct);
    ASSERT_NE(code, 0);
    ASSERT_NE(code, -1);
    ASSERT_EQ(direct, nullptr);

    ZEPO_ADDRINFO *list = nullptr;
    EXPECT_EQ(ZEPO_GetAddrInfo("no-such-host.invalid", nullptr, &hints, &list), -1);
    EXPECT_EQ(list, nullptr);
    EXPECT_LT(seconds_since(start), 40.0);
}

TEST(Socket, GetAddrInfoOfANonNumericNameWithNumericHostGivesMinusOne) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST;
    ZEPO_ADDRINFO *list = nullptr;
    EXPECT_EQ(ZEPO_GetAddrInfo("localhost", "80", &hints, &list), -1);
    EXPECT_EQ(list, nullptr);
}

TEST(Socket, GetAddrInfoFailureWithAListAlreadyInPlaceGivesTheResolversCodeAndLeavesIt) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST;
    // The resolver leaves the caller's pointer alone when it fails.
    struct addrinfo node;
    std::memset(&node, 0, sizeof node);
    struct addrinfo *direct = &node;
    const int code = ::getaddrinfo("not.a.number", nullptr, &hints, &direct);
    ASSERT_NE(code, 0);
    ASSERT_NE(code, -1);
    ASSERT_EQ(direct, &node);

    char name[] = "name";
    struct sockaddr_in addr = loopback4(1);
    ZEPO_ADDRINFO placed;
    std::memset(&placed, 0, sizeof placed);
    placed.ai_canonname = name;
    placed.ai_addr = reinterpret_cast<struct sockaddr *>(&addr);
    ZEPO_ADDRINFO *list = &placed;
    EXPECT_EQ(ZEPO_GetAddrInfo("not.a.number", nullptr, &hints, &list), code);
    EXPECT_EQ(list, &placed);
    EXPECT_EQ(placed.ai_canonname, name);
    EXPECT_EQ(placed.ai_addr, reinterpret_cast<struct sockaddr *>(&addr));
    EXPECT_EQ(placed.ai_next, nullptr);
}

TEST(Socket, GetAddrInfoListShowsTheCanonicalNameBeforeTheAddress) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST | AI_CANONNAME;
    hints.ai_family = AF_INET;
    // The C library's own answer, for comparison.
    struct addrinfo *direct = nullptr;
    ASSERT_EQ(::getaddrinfo("127.0.0.1", "80", &hints, &direct), 0);
    ASSERT_NE(direct, nullptr);
    ASSERT_NE(direct->ai_canonname, nullptr);
    const std::string canonical = direct->ai_canonname;
    int direct_nodes = 0;
    for (struct addrinfo *p = direct; p != nullptr; p = p->ai_next) ++direct_nodes;
    ::freeaddrinfo(direct);

    ZEPO_ADDRINFO *list = nullptr;
    ASSERT_EQ(ZEPO_GetAddrInfo("127.0.0.1", "80", &hints, &list), 0);
    ASSERT_NE(list, nullptr);
    ASSERT_NE(list->ai_canonname, nullptr);
    EXPECT_EQ(std::string(list->ai_canonname), canonical);
    int nodes = 0;
    for (ZEPO_ADDRINFO *p = list; p != nullptr; p = p->ai_next) {
        ++nodes;
        EXPECT_EQ(p->ai_family, AF_INET);
        EXPECT_EQ(p->ai_addrlen, sizeof(struct sockaddr_in));
        ASSERT_NE(p->ai_addr, nullptr);
        const auto *in = reinterpret_cast<const struct sockaddr_in *>(p->ai_addr);
        EXPECT_EQ(in->sin_family, AF_INET);
        EXPECT_EQ(in->sin_port, htons(80));
        EXPECT_EQ(in->sin_addr.s_addr, htonl(INADDR_LOOPBACK));
        // Read as the C library's node, the same memory has the two pointers the other way round.
        const auto *c = reinterpret_cast<const struct addrinfo *>(p);
        EXPECT_EQ(static_cast<const void *>(c->ai_addr),
                  static_cast<const void *>(p->ai_canonname));
        EXPECT_EQ(static_cast<const void *>(c->ai_canonname),
                  static_cast<const void *>(p->ai_addr));
    }
    EXPECT_EQ(nodes, direct_nodes);
    EXPECT_GE(nodes, 1);
    ZEPO_FreeAddrInfo(list);
}

TEST(Socket, GetAddrInfoSwapsEveryNodeOfAListOfSeveral) {
    // No socket type in the hints: one node per type (stream, datagram, raw).
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_family = AF_INET6;
    ZEPO_ADDRINFO *list = nullptr;
    ASSERT_EQ(ZEPO_GetAddrInfo("::1", nullptr, &hints, &list), 0);
    ASSERT_NE(list, nullptr);
    int nodes = 0;
    for (ZEPO_ADDRINFO *p = list; p != nullptr; p = p->ai_next) {
        ++nodes;
        EXPECT_EQ(p->ai_canonname, nullptr);
        ASSERT_NE(p->ai_addr, nullptr);
        EXPECT_EQ(p->ai_addr->sa_family, AF_INET6);
        EXPECT_EQ(hex(&reinterpret_cast<struct sockaddr_in6 *>(p->ai_addr)->sin6_addr, 16),
                  hex(&in6addr_loopback, 16));
    }
    EXPECT_GE(nodes, 2);
    ZEPO_FreeAddrInfo(list);
}

TEST(Socket, FreeAddrInfoReleasesAListAndIgnoresNull) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST | AI_CANONNAME;
    for (int i = 0; i < 50; ++i) {
        ZEPO_ADDRINFO *list = nullptr;
        ASSERT_EQ(ZEPO_GetAddrInfo("127.0.0.1", "8080", &hints, &list), 0);
        ASSERT_NE(list, nullptr);
        ZEPO_FreeAddrInfo(list);  // a bad free or a leak is reported by the sanitized build
    }
    errno = kSentinel;
    ZEPO_FreeAddrInfo(nullptr);
    EXPECT_EQ(errno, kSentinel);
}

TEST(Socket, SwapNameAndAddrExchangesEveryNodeAndTwiceRestoresTheList) {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST | AI_CANONNAME;
    hints.ai_family = AF_INET;
    struct addrinfo *list = nullptr;
    ASSERT_EQ(::getaddrinfo("127.0.0.1", nullptr, &hints, &list), 0);
    struct Seen {
        struct sockaddr *addr;
        char *name;
    };
    std::vector<Seen> before;
    for (struct addrinfo *p = list; p != nullptr; p = p->ai_next)
        before.push_back(Seen{p->ai_addr, p->ai_canonname});
    ASSERT_GE(before.size(), 2u);  // stream, datagram and raw nodes

    zepoAddrInfoSwapNameAndAddr(list);
    size_t i = 0;
    for (struct addrinfo *p = list; p != nullptr; p = p->ai_next, ++i) {
        ASSERT_LT(i, before.size());
        EXPECT_EQ(static_cast<void *>(p->ai_addr), static_cast<void *>(before[i].name)) << i;
        EXPECT_EQ(static_cast<void *>(p->ai_canonname), static_cast<void *>(before[i].addr)) << i;
    }
    EXPECT_EQ(i, before.size());

    zepoAddrInfoSwapNameAndAddr(list);
    i = 0;
    for (struct addrinfo *p = list; p != nullptr; p = p->ai_next, ++i) {
        EXPECT_EQ(p->ai_addr, before[i].addr) << i;
        EXPECT_EQ(p->ai_canonname, before[i].name) << i;
    }
    EXPECT_EQ(std::string(list->ai_canonname), "127.0.0.1");
    ::freeaddrinfo(list);

    errno = kSentinel;
    zepoAddrInfoSwapNameAndAddr(nullptr);
    EXPECT_EQ(errno, kSentinel);
}

// ==== Local addresses ========================================================================

TEST(Socket, IsLocalIpOfTheLoopbackAddressIsOneWhileLoopbackIsUp) {
    EXPECT_EQ(ZEPO_IsLocalIp(htonl(INADDR_LOOPBACK)), 1);
}

TEST(Socket, IsLocalIpOfAnAddressOfNoInterfaceIsZero) {
    const uint32_t foreign = ::inet_addr(kForeignIpv4);
    ASSERT_FALSE(any_interface_has(AF_INET, &foreign));
    EXPECT_EQ(ZEPO_IsLocalIp(foreign), 0);
    EXPECT_EQ(ZEPO_IsLocalIp(0), 0);
    // The loopback address in host order is another address altogether.
    EXPECT_EQ(ZEPO_IsLocalIp(INADDR_LOOPBACK), 0);
}

TEST(Socket, IsLocalIpKnowsTheAddressOfEveryInterfaceThatIsUp) {
    Fd s(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_GE(s.get(), 0);
    char buf[640];
    struct ifconf conf;
    conf.ifc_len = sizeof buf;
    conf.ifc_buf = buf;
    ASSERT_EQ(::ioctl(s.get(), SIOCGIFCONF, &conf), 0);
    const int n = conf.ifc_len / static_cast<int>(sizeof(struct ifreq));
    ASSERT_GE(n, 1);
    for (int i = 0; i < n; ++i) {
        struct ifreq req;
        std::memcpy(&req, buf + i * sizeof(struct ifreq), sizeof req);
        const uint32_t ip = reinterpret_cast<struct sockaddr_in *>(&req.ifr_addr)->sin_addr.s_addr;
        struct ifreq flags = req;
        ASSERT_EQ(::ioctl(s.get(), SIOCGIFFLAGS, &flags), 0);
        SCOPED_TRACE(req.ifr_name);
        EXPECT_EQ(ZEPO_IsLocalIp(ip), (flags.ifr_flags & IFF_UP) != 0 ? 1 : 0);
    }
}

TEST(Socket, IsLocalIpFollowsTheLoopbackInterfaceOfAFreshNetworkNamespace) {
    // The child has a namespace of its own, whose loopback interface starts down.
    const int status = in_child([] {
        if (::unshare(CLONE_NEWNET) != 0) return 10;
        if (ZEPO_IsLocalIp(htonl(INADDR_LOOPBACK)) != 0) return 1;
        if (!set_loopback_up(true)) return 11;
        if (!wait_until([] { return ZEPO_IsLocalIp(htonl(INADDR_LOOPBACK)) == 1; })) return 2;
        if (!set_loopback_up(false)) return 12;
        if (!wait_until([] { return ZEPO_IsLocalIp(htonl(INADDR_LOOPBACK)) == 0; })) return 3;
        return 0;
    });
    EXPECT_NE(status, 10) << "unshare(CLONE_NEWNET) failed";
    EXPECT_NE(status, 11) << "could not bring lo up";
    EXPECT_NE(status, 12) << "could not bring lo down again";
    EXPECT_NE(status, 1) << "not 0 while lo was down";
    EXPECT_NE(status, 2) << "not 1 once lo was up";
    EXPECT_NE(status, 3) << "not 0 once lo was down again";
    EXPECT_EQ(status, 0);
}

TEST(Socket, IsLocalIp6OfTheLoopbackAddressesIsOne) {
    EXPECT_EQ(ZEPO_IsLocalIp6(10, &in6addr_loopback), 1);
    const unsigned char v4[4] = {127, 0, 0, 1};
    EXPECT_EQ(ZEPO_IsLocalIp6(2, v4), 1);
}

TEST(Socket, IsLocalIp6OfAnAddressOfNoInterfaceIsZero) {
    unsigned char v6[16];
    ASSERT_EQ(::inet_pton(AF_INET6, kForeignIpv6, v6), 1);
    ASSERT_FALSE(any_interface_has(AF_INET6, v6));
    EXPECT_EQ(ZEPO_IsLocalIp6(10, v6), 0);
    unsigned char v4[4];
    ASSERT_EQ(::inet_pton(AF_INET, kForeignIpv4, v4), 1);
    ASSERT_FALSE(any_interface_has(AF_INET, v4));
    EXPECT_EQ(ZEPO_IsLocalIp6(2, v4), 0);
}

TEST(Socket, IsLocalIp6OfAnyOtherFamilyIsZero) {
    const unsigned char v4[16] = {127, 0, 0, 1};
    for (int32_t family : {0, 1, 17, 99, -1}) {
        SCOPED_TRACE(family);
        EXPECT_EQ(ZEPO_IsLocalIp6(family, &in6addr_loopback), 0);
        EXPECT_EQ(ZEPO_IsLocalIp6(family, v4), 0);
    }
}

TEST(Socket, IsLocalIp6WithFamily2ComparesFourBytesWithIpv4EntriesOnly) {
    // The first four bytes of ::1 are zero: no IPv4 entry has 0.0.0.0.
    const unsigned char zero[4] = {};
    ASSERT_FALSE(any_interface_has(AF_INET, zero));
    EXPECT_EQ(ZEPO_IsLocalIp6(2, &in6addr_loopback), 0);
    // An IPv4-mapped form of 127.0.0.1 is not an IPv6 address of this host either.
    unsigned char mapped[16];
    ASSERT_EQ(::inet_pton(AF_INET6, "::ffff:127.0.0.1", mapped), 1);
    ASSERT_FALSE(any_interface_has(AF_INET6, mapped));
    EXPECT_EQ(ZEPO_IsLocalIp6(10, mapped), 0);
}

TEST(Socket, IsLocalIp6Family10ComparesEntriesOfEveryFamilyButIpv4) {
    // A link-layer entry that is up: its bytes at the place of an IPv6 address match too.
    struct ifaddrs *all = nullptr;
    ASSERT_EQ(::getifaddrs(&all), 0);
    unsigned char bytes[16];
    bool found = false;
    std::string name;
    for (struct ifaddrs *p = all; p != nullptr && !found; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_addr->sa_family != AF_PACKET) continue;
        if ((p->ifa_flags & IFF_UP) == 0) continue;
        std::memcpy(bytes, &reinterpret_cast<struct sockaddr_in6 *>(p->ifa_addr)->sin6_addr, 16);
        if (any_interface_has(AF_INET6, bytes)) continue;
        found = true;
        name = p->ifa_name;
    }
    ::freeifaddrs(all);
    ASSERT_TRUE(found) << "no link-layer entry of an interface that is up";
    SCOPED_TRACE(name + " " + hex(bytes, 16));
    EXPECT_EQ(ZEPO_IsLocalIp6(10, bytes), 1);
}

TEST(Socket, IsLocalIp6FollowsTheLoopbackInterfaceOfAFreshNetworkNamespace) {
    const int status = in_child([] {
        const unsigned char v4[4] = {127, 0, 0, 1};
        if (::unshare(CLONE_NEWNET) != 0) return 10;
        if (ZEPO_IsLocalIp6(10, &in6addr_loopback) != 0) return 1;
        if (ZEPO_IsLocalIp6(2, v4) != 0) return 2;
        if (!set_loopback_up(true)) return 11;
        if (!wait_until([] { return ZEPO_IsLocalIp6(10, &in6addr_loopback) == 1; })) return 3;
        if (!wait_until([&] { return ZEPO_IsLocalIp6(2, v4) == 1; })) return 4;
        // Down again: 127.0.0.1 stays on the interface, but the interface is not up.
        if (!set_loopback_up(false)) return 12;
        if (!wait_until([&] { return ZEPO_IsLocalIp6(2, v4) == 0; })) return 5;
        if (!wait_until([] { return ZEPO_IsLocalIp6(10, &in6addr_loopback) == 0; })) return 6;
        return 0;
    });
    EXPECT_NE(status, 10) << "unshare(CLONE_NEWNET) failed";
    EXPECT_NE(status, 11) << "could not bring lo up";
    EXPECT_NE(status, 1) << "::1 not 0 while lo was down";
    EXPECT_NE(status, 2) << "127.0.0.1 not 0 while lo was down";
    EXPECT_NE(status, 3) << "::1 not 1 once lo was up";
    EXPECT_NE(status, 4) << "127.0.0.1 not 1 once lo was up";
    EXPECT_NE(status, 12) << "could not bring lo down again";
    EXPECT_NE(status, 5) << "127.0.0.1 not 0 once lo was down again";
    EXPECT_NE(status, 6) << "::1 not 0 once lo was down again";
    EXPECT_EQ(status, 0);
}

// ==== Telling address text apart =============================================================

TEST(Socket, TestIpTypeGivesTwoForIpv4TextAndTenForIpv6Text) {
    EXPECT_EQ(ZEPO_TestIpType("192.168.1.1"), 2);
    EXPECT_EQ(ZEPO_TestIpType("127.0.0.1"), 2);
    EXPECT_EQ(ZEPO_TestIpType("::1"), 10);
    EXPECT_EQ(ZEPO_TestIpType("fe80::1:2"), 10);
    EXPECT_EQ(ZEPO_TestIpType("::ffff:1.2.3.4"), 10);
}

TEST(Socket, TestIpTypeOfAHostNameNullOrEmptyTextIsMinusOne) {
    EXPECT_EQ(ZEPO_TestIpType("localhost"), -1);
    EXPECT_EQ(ZEPO_TestIpType(nullptr), -1);
    EXPECT_EQ(ZEPO_TestIpType(""), -1);
    EXPECT_EQ(ZEPO_TestIpType("1.2.3"), -1);
    EXPECT_EQ(ZEPO_TestIpType("256.1.1.1"), -1);
    EXPECT_EQ(ZEPO_TestIpType("1::2::3"), -1);
}

// ==== Close-on-exec ==========================================================================

TEST(Socket, NoInheritSetsCloseOnExecAndGivesZero) {
    Fd fd(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(fd.get(), 0);
    ASSERT_EQ(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    fcntl_count = 0;
    record_fcntl = true;
    const int32_t r = qel_set_socketport_no_inherit(fd.get());
    record_fcntl = false;
    EXPECT_EQ(r, 0);
    EXPECT_EQ(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    ASSERT_EQ(fcntl_count.load(), 2);
    EXPECT_EQ(fcntl_calls[0].cmd, F_GETFD);
    EXPECT_EQ(fcntl_calls[1].cmd, F_SETFD);
    EXPECT_EQ(static_cast<int>(fcntl_calls[1].arg), FD_CLOEXEC);
    // Once more: the flag stays set.
    EXPECT_EQ(qel_set_socketport_no_inherit(fd.get()), 0);
    EXPECT_EQ(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(Socket, NoInheritOfAClosedDescriptorWritesMinusOneAndFails) {
    Fd probe(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(probe.get(), 0);
    const int closed = probe.get();
    probe.reset();
    fcntl_count = 0;
    record_fcntl = true;
    errno = 0;
    const int32_t r = qel_set_socketport_no_inherit(closed);
    const int err = errno;
    record_fcntl = false;
    EXPECT_EQ(r, -1);
    EXPECT_EQ(err, EBADF);
    ASSERT_EQ(fcntl_count.load(), 2) << "both reads and writes are made";
    EXPECT_EQ(fcntl_calls[0].cmd, F_GETFD);
    EXPECT_EQ(fcntl_calls[1].cmd, F_SETFD);
    EXPECT_EQ(static_cast<int>(fcntl_calls[1].arg), -1);
}
