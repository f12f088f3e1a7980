// Port state scanner.
//
// zepoGet_Port_State is tried on socket tables that the tests write into a temporary folder,
// in the kernel's own layout; ZEPO_PortStat on real sockets of the test, bound to 127.0.0.1 or
// ::1 on ports the system picks.  Before a test relies on the kernel's tables it reads them
// itself and fails with a clear message when the platform does not list the socket it made
// (some sandboxes show empty /proc/net tables).

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "qel_socket.h"

#include "test_support.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr int kUdp = 1;
constexpr int kTcp = 2;
constexpr uint32_t kUntouched = 0xDEADBEEF;

// ---- Tables written by the tests -------------------------------------------------------

const char kTcpHeader[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
    "timeout inode                                                     \n";
const char kTcp6Header[] =
    "  sl  local_address                         remote_address                        st "
    "tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

// One IPv4 line as the kernel writes it: ports and state in hexadecimal.
std::string tcp_line(int slot, unsigned localPort, unsigned remotePort, unsigned state,
                     const std::string &rest = "1 0000000000000000 100 0 0 10 0") {
    char text[256];
    std::snprintf(text, sizeof text,
                  "%4d: 0100007F:%04X 0100007F:%04X %02X 00000000:00000000 00:00000000 "
                  "00000000     0        0 %d ",
                  slot, localPort, remotePort, state, 10000 + slot);
    return text + rest + "\n";
}

// One IPv6 line: 32 hexadecimal digits per address.
std::string tcp6_line(int slot, unsigned localPort, unsigned state) {
    char text[512];
    std::snprintf(text, sizeof text,
                  "%4d: 00000000000000000000000001000000:%04X "
                  "00000000000000000000000000000000:0000 %02X 00000000:00000000 00:00000000 "
                  "00000000     0        0 %d 1 0000000000000000 100 0 0 10 0\n",
                  slot, localPort, state, 20000 + slot);
    return text;
}

std::string write_table(const qel_test::TempDir &dir, const std::string &content) {
    const std::string path = dir / "table";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    EXPECT_TRUE(out) << "could not write " << path;
    return path;
}

struct Scan {
    int32_t result;
    uint32_t state;
    std::string printed;
};

Scan scan(const std::string &path, uint32_t port) {
    Scan s{0, kUntouched, {}};
    CaptureStdout();
    s.result = zepoGet_Port_State(path.c_str(), port, &s.state);
    s.printed = GetCapturedStdout();
    return s;
}

struct Stat {
    int32_t result;
    std::string printed;
};

Stat port_stat(int32_t port, int32_t protocol) {
    CaptureStdout();
    const int32_t result = ZEPO_PortStat(port, protocol);
    return Stat{result, GetCapturedStdout()};
}

std::string printed_line(unsigned port, unsigned state) {
    return "LocalPort=" + std::to_string(port) + ", usPort=" + std::to_string(port) +
           ", state=" + std::to_string(state) + "\r\n";
}

// ---- Real sockets ----------------------------------------------------------------------

class Socket {
public:
    Socket(int family, int type) : fd_(::socket(family, type | SOCK_CLOEXEC, 0)) {
        EXPECT_GE(fd_, 0) << std::strerror(errno);
    }
    ~Socket() { close(); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return fd_; }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// Binds to 127.0.0.1 on the given port (0: one the system picks); the bound port, or 0.
uint16_t bind_ipv4(const Socket &s, uint16_t port = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(s.fd(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return 0;
    socklen_t len = sizeof address;
    if (::getsockname(s.fd(), reinterpret_cast<sockaddr *>(&address), &len) != 0) return 0;
    return ntohs(address.sin_port);
}

// Binds to ::1 only (IPV6_V6ONLY), on a port the system picks; the bound port, or 0.
uint16_t bind_ipv6_only(const Socket &s) {
    const int on = 1;
    if (::setsockopt(s.fd(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) return 0;
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    if (::bind(s.fd(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return 0;
    socklen_t len = sizeof address;
    if (::getsockname(s.fd(), reinterpret_cast<sockaddr *>(&address), &len) != 0) return 0;
    return ntohs(address.sin6_port);
}

// Whether the kernel table lists a socket on this local port, read by the test itself.
bool table_lists(const char *table, unsigned port) {
    std::ifstream in(table);
    std::string line;
    if (!std::getline(in, line)) return false;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string slot;
        std::string local;
        if (!(fields >> slot >> local)) continue;
        const auto colon = local.rfind(':');
        if (colon == std::string::npos) continue;
        if (std::stoul(local.substr(colon + 1), nullptr, 16) == port) return true;
    }
    return false;
}

bool any_table_lists(unsigned port) {
    return table_lists("/proc/net/tcp", port) || table_lists("/proc/net/tcp6", port) ||
           table_lists("/proc/net/udp", port) || table_lists("/proc/net/udp6", port);
}

#define ASSERT_LISTED(table, port)                                                         \
    do {                                                                                   \
        if (!table_lists((table), (port)))                                                 \
            FAIL() << (table) << " does not list the test's own socket on port " << (port) \
                   << " on this platform";                                                 \
    } while (0)

// ---- zepoGet_Port_State on written tables ------------------------------------------------

TEST(Port, FoundPortGivesZeroStoresItsStateAndPrintsTheLineEndingInCrLf) {
    qel_test::TempDir dir;
    const std::string path =
        write_table(dir, kTcpHeader + tcp_line(0, 0x1F90, 0, 0x0A) + tcp_line(1, 22, 0, 0x0A) +
                             tcp_line(2, 0x0050, 0, 0x0A));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 10u);
    EXPECT_EQ(s.printed, "LocalPort=22, usPort=22, state=10\r\n");
}

TEST(Port, StateCodeIsReadAsHexadecimal) {
    qel_test::TempDir dir;
    const std::string path = write_table(dir, kTcpHeader + tcp_line(0, 4000, 0, 0x0B));
    const Scan s = scan(path, 4000);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 11u);
    EXPECT_EQ(s.printed, printed_line(4000, 11));
}

TEST(Port, HeaderOnlyTableGivesMinusOneLeavesTheStateAndPrintsNothing) {
    qel_test::TempDir dir;
    const Scan s = scan(write_table(dir, kTcpHeader), 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.state, kUntouched);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, EmptyTableGivesMinusOne) {
    qel_test::TempDir dir;
    const Scan s = scan(write_table(dir, ""), 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.state, kUntouched);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, MissingTableGivesMinusOneAndPrintsNothing) {
    qel_test::TempDir dir;
    const Scan s = scan(dir / "no_such_table", 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.state, kUntouched);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, NullOrEmptyPathAndNullStateAreRefusedWithoutTouchingErrno) {
    qel_test::TempDir dir;
    const std::string path = write_table(dir, kTcpHeader + tcp_line(0, 22, 0, 0x0A));
    uint32_t state = kUntouched;
    CaptureStdout();
    EXPECT_REFUSED(zepoGet_Port_State(nullptr, 22, &state), -1);
    EXPECT_REFUSED(zepoGet_Port_State("", 22, &state), -1);
    EXPECT_REFUSED(zepoGet_Port_State(path.c_str(), 22, nullptr), -1);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(state, kUntouched);
}

TEST(Port, FirstLineIsSkippedAsTheHeaderEvenWhenItIsAMatchingEntry) {
    qel_test::TempDir dir;
    const std::string path = write_table(dir, tcp_line(0, 22, 0, 0x0A));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.printed, "");
    // With a second copy of the line, the second is found.
    const Scan again = scan(write_table(dir, tcp_line(0, 22, 0, 0x0A) + tcp_line(1, 22, 0, 1)), 22);
    EXPECT_EQ(again.result, 0);
    EXPECT_EQ(again.state, 1u);
}

TEST(Port, MalformedLinesAreSkippedAndALaterGoodLineIsStillFound) {
    qel_test::TempDir dir;
    const std::string tail = " 0100007F:0000 0A 00000000:00000000 00:00000000 00000000 0 0 1 1 x\n";
    std::string table = kTcpHeader;
    // A blank line, and words that are no socket line at all.
    table += "\n";
    table += "garbage that is not a socket line\n";
    // No colon after the slot number.
    table += "   1 0100007F:0016" + tail;
    // A letter that is not hexadecimal in the address.
    table += "   2: 0100007G:0016" + tail;
    // More than 64 digits of address.
    table += "   3: " + std::string(65, 'A') + ":0016" + tail;
    // No colon between address and port.
    table += "   4: 0100007F 0016" + tail;
    table += tcp_line(5, 22, 0, 0x01);
    // The same words, well formed, make a line that counts.
    table += "   6: 0100007F:0017" + tail;
    const std::string path = write_table(dir, table);
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 1u);
    EXPECT_EQ(s.printed, printed_line(22, 1));
    const Scan wellFormed = scan(path, 23);
    EXPECT_EQ(wellFormed.result, 0);
    EXPECT_EQ(wellFormed.state, 10u);
}

TEST(Port, MalformedLineWithTheRequestedPortDoesNotCount) {
    qel_test::TempDir dir;
    const std::string path = write_table(
        dir, std::string(kTcpHeader) +
                 "   0: 0100007G:0016 0100007F:0000 0A 00000000:00000000 00:00000000 00000000 "
                 "0 0 1 1 x\n");
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.state, kUntouched);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, LineWithNoWordAfterTheInodeHasFewerThanFifteenFieldsAndDoesNotCount) {
    qel_test::TempDir dir;
    // Ends at the inode, once right after it and once with blanks after it.
    const std::string path = write_table(
        dir, std::string(kTcpHeader) +
                 "   0: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000  "
                 "   0        0 1076\n" +
                 "   1: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000  "
                 "   0        0 1077     \n");
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.state, kUntouched);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, LinesCutShortBeforeTheInodeDoNotCountEither) {
    qel_test::TempDir dir;
    const std::string path = write_table(
        dir, std::string(kTcpHeader) + "   0: 0100007F:0016 00000000:0000 0A\n" +
                 "   1: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000\n" +
                 tcp_line(2, 22, 0, 0x06));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 6u);
    EXPECT_EQ(s.printed, printed_line(22, 6));
}

TEST(Port, OneWordAfterTheInodeIsEnough) {
    qel_test::TempDir dir;
    const std::string path = write_table(dir, kTcpHeader + tcp_line(0, 22, 0, 0x0A, "7"));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 10u);
}

TEST(Port, AWordAfterTheInodeLongerThan512CharactersStillParses) {
    qel_test::TempDir dir;
    const std::string path =
        write_table(dir, kTcpHeader + tcp_line(0, 22, 0, 0x0A, std::string(2000, 'w')));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 10u);
}

TEST(Port, PortOnlyInTheRemoteColumnIsNotFound) {
    qel_test::TempDir dir;
    const std::string path = write_table(
        dir, kTcpHeader + tcp_line(0, 0x9C40, 22, 0x01) + tcp_line(1, 0x9C41, 22, 0x01));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.state, kUntouched);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, FirstOfSeveralMatchingLinesWinsAndOnlyItsStateIsStoredAndPrinted) {
    qel_test::TempDir dir;
    const std::string path =
        write_table(dir, kTcpHeader + tcp_line(0, 80, 0, 0x0A) + tcp_line(1, 22, 0x9C40, 0x08) +
                             tcp_line(2, 22, 0, 0x0A) + tcp_line(3, 22, 0x9C41, 0x01));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 8u);
    EXPECT_EQ(s.printed, "LocalPort=22, usPort=22, state=8\r\n");
}

TEST(Port, IPv6TableLinesWithLongAddressesAreParsed) {
    qel_test::TempDir dir;
    const std::string path =
        write_table(dir, kTcp6Header + tcp6_line(0, 0x1F90, 0x0A) + tcp6_line(1, 443, 0x01));
    const Scan s = scan(path, 443);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 1u);
    EXPECT_EQ(s.printed, printed_line(443, 1));
}

TEST(Port, PortIsComparedAsAWhole32BitValue) {
    qel_test::TempDir dir;
    const std::string path = write_table(dir, kTcpHeader + tcp_line(0, 22, 0, 0x0A));
    const Scan s = scan(path, 65536 + 22);
    EXPECT_EQ(s.result, -1);
    EXPECT_EQ(s.state, kUntouched);
}

TEST(Port, LastLineWithoutItsNewlineIsStillParsed) {
    qel_test::TempDir dir;
    std::string line = tcp_line(0, 22, 0, 0x0A);
    line.pop_back();
    const Scan s = scan(write_table(dir, kTcpHeader + line), 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 0x0Au);
    EXPECT_EQ(s.printed, "LocalPort=22, usPort=22, state=10\r\n");
}

TEST(Port, ALineLongerThanTheBufferIsReadInPiecesEachTakenAsALine) {
    qel_test::TempDir dir;
    // 8191 characters fill the buffer; what follows on the same line is read as a line.
    const std::string path =
        write_table(dir, kTcpHeader + std::string(8191, 'x') + tcp_line(0, 22, 0, 0x02));
    const Scan s = scan(path, 22);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.state, 2u);
}

TEST(Port, ScanOfAFolderRetriesTheFailingReadForever) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    qel_test::TempDir dir;
    const std::string folder = dir.path();
    EXPECT_EXIT(
        {
            uint32_t state = 0;
            ::alarm(1);
            zepoGet_Port_State(folder.c_str(), 22, &state);
            std::_Exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
}

// ---- ZEPO_PortStat ----------------------------------------------------------------------

TEST(Port, PortZeroAnd65536AreRefusedWithoutReadingAnything) {
    for (int protocol : {kUdp, kTcp}) {
        const Stat zero = port_stat(0, protocol);
        EXPECT_EQ(zero.result, -1);
        EXPECT_EQ(zero.printed, "");
        const Stat wrapped = port_stat(65536, protocol);
        EXPECT_EQ(wrapped.result, -1);
        EXPECT_EQ(wrapped.printed, "");
    }
}

TEST(Port, UnknownProtocolIsRefusedEvenForAPortInUse) {
    Socket listener(AF_INET, SOCK_STREAM);
    const uint16_t port = bind_ipv4(listener);
    ASSERT_NE(port, 0);
    ASSERT_EQ(::listen(listener.fd(), 4), 0);
    for (int protocol : {3, 0, -1, 6, 17}) {
        const Stat s = port_stat(port, protocol);
        EXPECT_EQ(s.result, -1) << "protocol " << protocol;
        EXPECT_EQ(s.printed, "");
    }
}

TEST(Port, TcpListenerOnIpv4LoopbackIsInUseInTheListeningState) {
    Socket listener(AF_INET, SOCK_STREAM);
    const uint16_t port = bind_ipv4(listener);
    ASSERT_NE(port, 0);
    ASSERT_EQ(::listen(listener.fd(), 4), 0);
    ASSERT_LISTED("/proc/net/tcp", port);
    const Stat s = port_stat(port, kTcp);
    EXPECT_EQ(s.result, 1);
    EXPECT_EQ(s.printed, printed_line(port, 10));
    uint32_t state = kUntouched;
    CaptureStdout();
    EXPECT_EQ(zepoGet_Port_State("/proc/net/tcp", port, &state), 0);
    GetCapturedStdout();
    EXPECT_EQ(state, 10u);
}

TEST(Port, UdpSocketOnIpv4LoopbackIsInUse) {
    Socket udp(AF_INET, SOCK_DGRAM);
    const uint16_t port = bind_ipv4(udp);
    ASSERT_NE(port, 0);
    ASSERT_LISTED("/proc/net/udp", port);
    const Stat s = port_stat(port, kUdp);
    EXPECT_EQ(s.result, 1);
    // An unconnected UDP socket shows the closed state, 7.
    EXPECT_EQ(s.printed, printed_line(port, 7));
}

TEST(Port, ListenerOnlyOnIPv6IsFoundInTheSecondTable) {
    Socket listener(AF_INET6, SOCK_STREAM);
    const uint16_t port = bind_ipv6_only(listener);
    if (port == 0) FAIL() << "no IPv6 loopback here: " << std::strerror(errno);
    ASSERT_EQ(::listen(listener.fd(), 4), 0);
    ASSERT_LISTED("/proc/net/tcp6", port);
    ASSERT_FALSE(table_lists("/proc/net/tcp", port));
    uint32_t state = kUntouched;
    CaptureStdout();
    EXPECT_EQ(zepoGet_Port_State("/proc/net/tcp", port, &state), -1);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(state, kUntouched);

    const Stat s = port_stat(port, kTcp);
    EXPECT_EQ(s.result, 1);
    EXPECT_EQ(s.printed, printed_line(port, 10));  // printed once, by the second scan
}

TEST(Port, UdpSocketOnlyOnIPv6IsFoundInTheSecondTable) {
    Socket udp(AF_INET6, SOCK_DGRAM);
    const uint16_t port = bind_ipv6_only(udp);
    if (port == 0) FAIL() << "no IPv6 loopback here: " << std::strerror(errno);
    ASSERT_LISTED("/proc/net/udp6", port);
    ASSERT_FALSE(table_lists("/proc/net/udp", port));
    const Stat s = port_stat(port, kUdp);
    EXPECT_EQ(s.result, 1);
    EXPECT_EQ(s.printed, printed_line(port, 7));
}

TEST(Port, ConnectedTcpSocketCountsAsInUseWhateverItsState) {
    Socket listener(AF_INET, SOCK_STREAM);
    const uint16_t serverPort = bind_ipv4(listener);
    ASSERT_NE(serverPort, 0);
    ASSERT_EQ(::listen(listener.fd(), 4), 0);
    Socket client(AF_INET, SOCK_STREAM);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(serverPort);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(client.fd(), reinterpret_cast<sockaddr *>(&server), sizeof server), 0)
        << std::strerror(errno);
    sockaddr_in mine{};
    socklen_t len = sizeof mine;
    ASSERT_EQ(::getsockname(client.fd(), reinterpret_cast<sockaddr *>(&mine), &len), 0);
    const uint16_t clientPort = ntohs(mine.sin_port);
    ASSERT_LISTED("/proc/net/tcp", clientPort);

    uint32_t state = kUntouched;
    CaptureStdout();
    EXPECT_EQ(zepoGet_Port_State("/proc/net/tcp", clientPort, &state), 0);
    GetCapturedStdout();
    EXPECT_EQ(state, 1u);  // established
    const Stat s = port_stat(clientPort, kTcp);
    EXPECT_EQ(s.result, 1);
    EXPECT_EQ(s.printed, printed_line(clientPort, 1));
}

TEST(Port, UnusedPortGivesZeroAndPrintsNothing) {
    // A port below 1024 is never handed out by the system, so one that no table lists now
    // stays unused for the test; port 1 is left to the test that binds it.
    unsigned unused = 0;
    for (unsigned candidate = 1023; candidate > 1 && unused == 0; --candidate) {
        if (!any_table_lists(candidate)) unused = candidate;
    }
    ASSERT_NE(unused, 0u);
    for (int protocol : {kUdp, kTcp}) {
        const Stat s = port_stat(static_cast<int32_t>(unused), protocol);
        EXPECT_EQ(s.result, 0) << "port " << unused << " protocol " << protocol;
        EXPECT_EQ(s.printed, "");
    }
}

TEST(Port, ClosedListenerIsNoLongerInUse) {
    Socket listener(AF_INET, SOCK_STREAM);
    const uint16_t port = bind_ipv4(listener);
    ASSERT_NE(port, 0);
    ASSERT_EQ(::listen(listener.fd(), 4), 0);
    ASSERT_LISTED("/proc/net/tcp", port);
    EXPECT_EQ(port_stat(port, kTcp).result, 1);
    listener.close();
    ASSERT_FALSE(any_table_lists(port));
    const Stat s = port_stat(port, kTcp);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, TcpListenerIsNotSeenAsUdp) {
    Socket listener(AF_INET, SOCK_STREAM);
    const uint16_t port = bind_ipv4(listener);
    ASSERT_NE(port, 0);
    ASSERT_EQ(::listen(listener.fd(), 4), 0);
    ASSERT_LISTED("/proc/net/tcp", port);
    ASSERT_FALSE(table_lists("/proc/net/udp", port) || table_lists("/proc/net/udp6", port));
    const Stat s = port_stat(port, kUdp);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.printed, "");
}

TEST(Port, OnlyTheLow16BitsOfThePortAreUsed) {
    Socket listener(AF_INET, SOCK_STREAM);
    const uint16_t port = bind_ipv4(listener);
    ASSERT_NE(port, 0);
    ASSERT_EQ(::listen(listener.fd(), 4), 0);
    ASSERT_LISTED("/proc/net/tcp", port);
    for (int32_t high : {1, 3, 0x7FFF, -1, -0x8000}) {
        const int32_t wide =
            static_cast<int32_t>(static_cast<uint32_t>(high) << 16 | static_cast<uint32_t>(port));
        const Stat s = port_stat(wide, kTcp);
        EXPECT_EQ(s.result, 1) << "port argument " << wide;
        // The line shows the port that was looked for: the low 16 bits.
        EXPECT_EQ(s.printed, printed_line(port, 10)) << "port argument " << wide;
    }
}

TEST(Port, Port65537ChecksPortOne) {
    // Port 1 needs privilege; several runs at once share it through SO_REUSEPORT.
    Socket listener(AF_INET, SOCK_STREAM);
    const int on = 1;
    ASSERT_EQ(::setsockopt(listener.fd(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);
    if (bind_ipv4(listener, 1) != 1 || ::listen(listener.fd(), 4) != 0) {
        // Without privilege port 1 stays as it is: 65537 must answer as 1 does.
        const Stat one = port_stat(1, kTcp);
        const Stat wrapped = port_stat(65537, kTcp);
        EXPECT_EQ(wrapped.result, one.result);
        EXPECT_EQ(wrapped.printed, one.printed);
        FAIL() << "port 1 cannot be bound here: " << std::strerror(errno);
    }
    ASSERT_LISTED("/proc/net/tcp", 1u);
    const Stat s = port_stat(65537, kTcp);
    EXPECT_EQ(s.result, 1);
    EXPECT_EQ(s.printed, "LocalPort=1, usPort=1, state=10\r\n");
}

}  // namespace
