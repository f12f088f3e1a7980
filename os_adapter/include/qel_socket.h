/*
 * qel_socket.h - socket wrappers and address helpers.
 *
 * Each wrapper checks the pointers named below, calls the C library once and returns
 * its result and errno unchanged.  A refusal calls nothing and leaves errno alone; its
 * value is given per function.  The send and receive pairs refuse differently on
 * purpose: ZEPO_Send and ZEPO_Recv give 4294967295 (the low 32 bits all ones, NOT -1)
 * for a null buffer, ZEPO_Sendto and ZEPO_Recvfrom give 0.
 *
 * Thread safety: no state of the library's own.  ZEPO_InetNtoa and ZEPO_GetHostByName
 * return the C library's static storage and are not safe for concurrent use;
 * ZEPO_GetHostByName_S is the re-entrant form.
 */
#ifndef QEL_SOCKET_H
#define QEL_SOCKET_H

#include <netdb.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A node of the address-information lists that ZEPO_GetAddrInfo hands out: the C
 * library's node with its two pointer fields exchanged, so that the canonical name
 * comes before the address (the field order callers are built against).
 */
typedef struct ZEPO_ADDRINFO {
    int32_t ai_flags;
    int32_t ai_family;
    int32_t ai_socktype;
    int32_t ai_protocol;
    uint32_t ai_addrlen;
    char *ai_canonname;
    struct sockaddr *ai_addr;
    struct ZEPO_ADDRINFO *ai_next;
} ZEPO_ADDRINFO;

/* Always 1: there is nothing to start on this platform. */
int32_t ZEPO_InitSocket(void);

/* Does nothing. */
void ZEPO_DInitSocket(void);

/* socket(domain, type, protocol): descriptor or -1. */
int32_t ZEPO_Socket(int32_t domain, int32_t type, int32_t protocol);

/* connect / bind (fd, addr, len): 0 or -1.  Null addr: -1. */
int32_t ZEPO_Connect(int32_t fd, const struct sockaddr *addr, uint32_t len);
int32_t ZEPO_Bind(int32_t fd, const struct sockaddr *addr, uint32_t len);

/* listen(fd, backlog): 0 or -1. */
int32_t ZEPO_Listen(int32_t fd, int32_t backlog);

/* accept(fd, addr, lenp): descriptor or -1.  Unchecked (addr and lenp may be null). */
int32_t ZEPO_Accept(int32_t fd, struct sockaddr *addr, socklen_t *lenp);

/* send / recv (fd, buf, len, flags), len signed 32-bit and sign-extended: bytes moved or
 * -1.  Null buf: 4294967295, not -1. */
int64_t ZEPO_Send(int32_t fd, const void *buf, int32_t len, int32_t flags);
int64_t ZEPO_Recv(int32_t fd, void *buf, int32_t len, int32_t flags);

/* sendto / recvfrom: bytes moved or -1.  Null buf: 0. */
int32_t ZEPO_Sendto(int32_t fd, const void *buf, uint32_t len, int32_t flags,
                    const struct sockaddr *addr, socklen_t alen);
int32_t ZEPO_Recvfrom(int32_t fd, void *buf, uint32_t len, int32_t flags, struct sockaddr *addr,
                      socklen_t *alenp);

/* close(fd): 0 or -1. */
int32_t ZEPO_CloseSocket(int32_t fd);

/* select(nfds, read, write, except, timeout): the count of ready descriptors, 0 on time
 * out, or -1.  Unchecked. */
int32_t ZEPO_Select(int32_t nfds, fd_set *readSet, fd_set *writeSet, fd_set *exceptSet,
                    struct timeval *timeout);

/* getsockname / getpeername (fd, addr, lenp): 0 or -1.  Null addr or lenp: -1. */
int32_t ZEPO_GetSockName(int32_t fd, struct sockaddr *addr, socklen_t *lenp);
int32_t ZEPO_GetPeerName(int32_t fd, struct sockaddr *addr, socklen_t *lenp);

/* getsockopt(fd, level, name, val, lenp): 0 or -1.  Null val or lenp: -1. */
int32_t ZEPO_GetSockOpt(int32_t fd, int32_t level, int32_t name, void *val, socklen_t *lenp);

/* setsockopt(fd, level, name, val, len): 0 or -1.  Null val: -1. */
int32_t ZEPO_SetSockOpt(int32_t fd, int32_t level, int32_t name, const void *val, socklen_t len);

/* ioctl(fd, request, arg), request signed 32-bit and sign-extended: the service's
 * result.  Unchecked. */
int32_t ZEPO_IoctlSocket(int32_t fd, int32_t request, void *arg);

/* gethostname(name, len): 0 or -1.  Null name: -1. */
int32_t ZEPO_GetHostName(char *name, uint32_t len);

/* gethostbyname(name): the C library's static entry or NULL.  Null or empty name: NULL. */
struct hostent *ZEPO_GetHostByName(const char *name);

/* gethostbyname_r(name, entry, buf, buflen, result, herr): the service's result.  A null
 * or empty name, a null entry or a null buf: -1; result and herr are not checked. */
int32_t ZEPO_GetHostByName_S(const char *name, struct hostent *entry, char *buf, uint32_t buflen,
                             struct hostent **result, int32_t *herr);

/* inet_addr(text): the address in network order (0xFFFFFFFF for bad text).  A null text
 * gives 0 - the address 0.0.0.0, not the C library's error value. */
uint32_t ZEPO_InetAddr(const char *text);

/* inet_ntoa of addr (network order): the text, in the C library's static buffer. */
char *ZEPO_InetNtoa(uint32_t addr);

/* inet_pton(af, text, dst): 1, 0 or -1.  Null text or dst: 0. */
int32_t ZEPO_Inet_Pton(int32_t af, const char *text, void *dst);

/* inet_ntop(af, src, buf, len): buf or NULL.  Null src or buf: NULL. */
const char *ZEPO_Inet_Ntop(int32_t af, const void *src, char *buf, uint32_t len);

/* 10, the number of the IPv6 family. */
int32_t QEL_Socket_Get_AF_INET6(void);

/*
 * getaddrinfo(node, service, hints, res) with the list handed out in ZEPO_ADDRINFO
 * order.  Returns -1 for a null res, and -1 whenever *res is null after the call -
 * whatever the resolver said (this test comes first); otherwise the resolver's non-zero
 * code, with the list untouched; otherwise 0.  Release the list with ZEPO_FreeAddrInfo.
 */
int32_t ZEPO_GetAddrInfo(const char *node, const char *service, const struct addrinfo *hints,
                         ZEPO_ADDRINFO **res);

/* Exchanges the fields back and releases the list with freeaddrinfo.  Null: ignored. */
void ZEPO_FreeAddrInfo(ZEPO_ADDRINFO *list);

/* Exchanges the canonical-name and address pointers in every node of list (following
 * the next pointers); applying it twice restores the list.  Null: left alone. */
void zepoAddrInfoSwapNameAndAddr(struct addrinfo *list);

/*
 * Connects fd to the IPv4 address ip (a 32-bit value in host order) and port (its low
 * 16 bits, host order): connect's result.  The address's eight trailing bytes are not
 * cleared.  No time-out of its own: the socket's mode decides whether it blocks.
 */
int32_t ZEPO_ConnectAdd(int32_t fd, uint32_t ip, uint32_t port);

/*
 * Connects fd to an address given as bytes: for family 2 the IPv4 address is the 32-bit
 * value in host order at addr, connected with a 16-byte address; any other family is
 * taken as IPv6, with the 16 bytes at addr, and a 28-byte address.  port in host order.
 * Returns connect's result.
 */
int32_t ZEPO_ConnectAdd6(int32_t fd, int32_t family, const void *addr, uint32_t port);

/*
 * 1 when an interface that is up has the IPv4 address ip (network order), else 0 -
 * every failure reads as "not local".  Only the first sixteen interfaces are seen.
 */
int32_t ZEPO_IsLocalIp(uint32_t ip);

/*
 * 1 when an interface that is up has the address at addr, else 0 (also for any
 * failure).  Family 10: the 16 bytes at addr are compared with every entry whose family
 * is not IPv4 (not only IPv6 ones); family 2: the 4 bytes with IPv4 entries; any other
 * family matches nothing.
 */
int32_t ZEPO_IsLocalIp6(int32_t family, const void *addr);

/* 2 for IPv4 address text, 10 for IPv6 text, -1 for anything else (a host name, null). */
int32_t ZEPO_TestIpType(const char *text);

/* Sets close-on-exec on fd (F_GETFD, then F_SETFD): the result of the second fcntl.  A
 * failed first read writes -1 back, which fails as well. */
int32_t qel_set_socketport_no_inherit(int32_t fd);

/* ---- Port state scanner ------------------------------------------------------------- */

/*
 * Scans one kernel socket table in the format of /proc/net/tcp, tcp6, udp and udp6 for
 * a socket whose LOCAL port is port (host order, compared as a whole 32-bit value).
 * Returns 0 when such a line is found: *state receives the kernel's state code of that
 * line (for TCP 10 is listening, 1 established; an unconnected UDP socket shows 7), and
 * the line "LocalPort=%d, usPort=%d, state=%d\r\n" - the requested port twice, then the
 * state, ending in CR LF - is printed to standard output through ZEPO_Printf.  Returns -1,
 * with nothing printed and *state untouched, when the table cannot be opened or holds
 * no such line; a null or empty path or a null state gives -1 without opening anything
 * and leaves errno alone.
 *
 * The first line of the table (the column header) is always skipped, whatever it holds.
 * A line counts only when it parses into all fifteen fields of the kernel's layout, so
 * it must carry a word after the inode.  The first matching line wins, whatever its
 * state or address; a port found only in the remote column does not count.
 *
 * The end of the table is tested after each read attempt (a last line without its
 * newline is still looked at first).  A read that fails short of the end is simply tried
 * again, so a path that opens but cannot be read - a folder - keeps the call reading
 * forever: pass only table files.
 * Nothing is allocated; the line buffer (8192 bytes) lives on the stack, and a longer
 * line is read in pieces, each taken as a line of its own.
 */
int32_t zepoGet_Port_State(const char *path, uint32_t port, uint32_t *state);

/*
 * Whether a local port is in use on this host.  Only the low 16 bits of port are used,
 * so 65536 is port 0 and 65537 is port 1.  protocol 1 is UDP: /proc/net/udp is scanned,
 * then /proc/net/udp6 if the port was not there; protocol 2 is TCP, with /proc/net/tcp
 * then /proc/net/tcp6 (zepoGet_Port_State).
 *
 * Returns 1 if the port was found, 0 if not, and -1 without reading anything for a port
 * whose low 16 bits are 0 or any other protocol.  The state code found is deliberately
 * not returned: a port in any state - listening, connected, closing - counts as in use.
 * A found port prints the line of zepoGet_Port_State.  A table that cannot be opened
 * counts as holding no such port, so a host without IPv6 answers from its IPv4 table.
 */
int32_t ZEPO_PortStat(int32_t port, int32_t protocol);

#ifdef __cplusplus
}
#endif

#endif /* QEL_SOCKET_H */
