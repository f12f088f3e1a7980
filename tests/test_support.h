// test_support.h - what the test files of the library share: the errno sentinel and the
// refusal checks, a temporary folder, and the look-up of the next definition of an
// interposed function.
#ifndef QEL_TEST_SUPPORT_H
#define QEL_TEST_SUPPORT_H

#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace qel_test {

// A value no call sets errno to: stored first, it shows whether a call touched errno.
inline constexpr int kSentinel = 4242;

// The next definition of a function that a test file defines again in front of the C
// library or of the library's own entry points (which the library calls through the
// dynamic linker).  errno is kept: dlsym may leave one behind.
template <typename Fn>
Fn next_definition(const char *name) {
    const int saved = errno;
    auto next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    errno = saved;
    return next;
}

// The lines of a text, each with its LF (and the CR before it); a last piece without LF
// is a line too.
inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

inline int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    return ::remove(path);
}

// A fresh folder under /tmp, removed with all it holds on destruction; the working folder
// of the process is put back first.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/qel_test_XXXXXX";
        const char *made = ::mkdtemp(name);
        if (made == nullptr) {
            ADD_FAILURE() << "mkdtemp failed: " << std::strerror(errno);
            return;
        }
        path_ = made;
        cwd_ = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    ~TempDir() {
        if (cwd_ >= 0) {
            if (::fchdir(cwd_) != 0 && ::chdir("/") != 0)
                ADD_FAILURE() << "no folder to go back to";
            ::close(cwd_);
        }
        if (!path_.empty()) ::nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    const char *c_str() const { return path_.c_str(); }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
    int cwd_ = -1;
};

}  // namespace qel_test

// Checks that a call is refused: the refusal value comes back and errno is left as it was.
#define EXPECT_REFUSED(call, value)                                         \
    do {                                                                    \
        errno = qel_test::kSentinel;                                        \
        auto refused_result_ = (call);                                      \
        EXPECT_EQ(refused_result_, (value)) << #call;                       \
        EXPECT_EQ(errno, qel_test::kSentinel) << #call << " changed errno"; \
    } while (0)

// Checks that a call without a result returns without touching errno.
#define EXPECT_VOID_REFUSED(call)                                           \
    do {                                                                    \
        errno = qel_test::kSentinel;                                        \
        call;                                                               \
        EXPECT_EQ(errno, qel_test::kSentinel) << #call << " changed errno"; \
    } while (0)

// Checks that a call fails in the service: the failure value comes back with the
// service's errno (a sentinel is stored first, so a stale value cannot pass).
#define EXPECT_SERVICE_FAILS(call, value, err)                            \
    do {                                                                  \
        errno = qel_test::kSentinel;                                      \
        auto failed_result_ = (call);                                     \
        EXPECT_EQ(failed_result_, (value)) << #call;                      \
        EXPECT_EQ(errno, (err)) << #call << ": " << std::strerror(errno); \
    } while (0)

#endif  // QEL_TEST_SUPPORT_H
