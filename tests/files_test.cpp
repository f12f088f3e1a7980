// File, stream, directory and descriptor wrappers, and the file utilities.
//
// Every test works inside a folder of its own made with mkdtemp under /tmp and removed at the
// end.  Tests that change the working folder, the creation mask or the mount-table name put
// them back when they finish (ctest runs each test in its own process anyway).

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "qel_file.h"
#include "qel_frame.h"
#include "qel_memory.h"

#include "test_support.h"

namespace {

using qel_test::kSentinel;
using qel_test::TempDir;
constexpr int64_t kLow32AllOnes = INT64_C(4294967295);

// ---- Helpers -------------------------------------------------------------------------------

// Sets the creation mask for the life of the object.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) : old_(::umask(mask)) {}
    ~UmaskGuard() { ::umask(old_); }

private:
    mode_t old_;
};

// Points g_mtab_mnt_file at a short relative name for the life of the object.
class MountTableGuard {
public:
    explicit MountTableGuard(const char *name) { std::strcpy(g_mtab_mnt_file, name); }
    ~MountTableGuard() { std::strcpy(g_mtab_mnt_file, "/proc/mounts"); }
};

bool write_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string &path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

bool is_dir(const std::string &path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_regular(const std::string &path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

off_t size_of(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

mode_t perms_of(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0xFFFF;
}

// Names in a folder, without "." and "..".
std::set<std::string> names_in(const std::string &path) {
    std::set<std::string> names;
    DIR *dir = ::opendir(path.c_str());
    if (dir == nullptr) return names;
    while (struct dirent *e = ::readdir(dir)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.insert(e->d_name);
    }
    ::closedir(dir);
    return names;
}

// A file of the given size made by ftruncate, so that it holds no data blocks.
bool make_sparse(const std::string &path, off_t size) {
    int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = ::ftruncate(fd, size) == 0;
    ::close(fd);
    return ok;
}

std::string pattern_bytes(size_t n, unsigned seed) {
    std::string s(n, '\0');
    unsigned x = seed * 2654435761u + 1u;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 16);
    }
    return s;
}

int sign(int v) { return (v > 0) - (v < 0); }

int skip_dots(const struct dirent *e) { return e->d_name[0] != '.'; }

std::vector<std::string> names_of(struct dirent **list, int n) {
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) names.push_back(list[i]->d_name);
    return names;
}

// Sizes of a file system in bytes, computed as the library is required to compute them.
struct Sizes {
    double total = 0, used = 0, available = 0;
    bool operator==(const Sizes &o) const {
        return total == o.total && used == o.used && available == o.available;
    }
};

bool fs_sizes(const char *dir, Sizes *out) {
    struct statfs s;
    if (::statfs(dir, &s) != 0) return false;
    if (s.f_blocks == 0) {
        *out = Sizes{};
        return true;
    }
    const double bsize = static_cast<double>(s.f_bsize);
    out->total = static_cast<double>(s.f_blocks) * bsize;
    out->used = static_cast<double>(s.f_blocks - s.f_bfree) * bsize;
    out->available = static_cast<double>(s.f_bavail) * bsize;
    return true;
}

// Makes `call` until the file system of `dir` reports the same counts just before and just
// after it, so that a writer elsewhere on that file system cannot make a comparison flaky.
// Stores those counts into *expected; false if they never held still or statfs failed.
template <typename Call>
bool sample_around(const char *dir, Call call, Sizes *expected) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        Sizes before, after;
        if (!fs_sizes(dir, &before)) return false;
        call();
        if (!fs_sizes(dir, &after)) return false;
        if (before == after) {
            *expected = before;
            return true;
        }
    }
    return false;
}

void expect_sizes(const ZEPO_SPACE_INFO &got, const Sizes &want) {
    EXPECT_DOUBLE_EQ(got.total, want.total);
    EXPECT_DOUBLE_EQ(got.used, want.used);
    EXPECT_DOUBLE_EQ(got.available, want.available);
}

ZEPO_SPACE_INFO space_pattern() {
    ZEPO_SPACE_INFO s;
    s.total = 1.25;
    s.used = 2.5;
    s.available = 3.75;
    return s;
}

void expect_space_pattern(const ZEPO_SPACE_INFO &s) {
    EXPECT_EQ(s.total, 1.25);
    EXPECT_EQ(s.used, 2.5);
    EXPECT_EQ(s.available, 3.75);
}

// The record ZEPO_Stat must produce from a stat result: all zero, then the carried fields.
ZEPO_STAT expected_record(const struct stat &st) {
    ZEPO_STAT r;
    std::memset(&r, 0, sizeof r);
    r.device = st.st_dev;
    r.inode = st.st_ino;
    r.mode = st.st_mode;
    r.linkCount = static_cast<uint32_t>(st.st_nlink);
    r.owner = static_cast<uint64_t>(st.st_uid);
    r.group = static_cast<uint64_t>(st.st_gid);
    r.size = st.st_size;
    r.accessTime = st.st_atim.tv_sec;
    r.modifyTime = st.st_mtim.tv_sec;
    r.changeTime = st.st_ctim.tv_sec;
    return r;
}

void expect_record_matches(const ZEPO_STAT &got, const struct stat &st) {
    EXPECT_EQ(got.device, static_cast<uint64_t>(st.st_dev));
    EXPECT_EQ(got.inode, static_cast<uint64_t>(st.st_ino));
    EXPECT_EQ(got.mode, static_cast<uint32_t>(st.st_mode));
    EXPECT_EQ(got.linkCount, static_cast<uint32_t>(st.st_nlink));
    EXPECT_EQ(got.owner, static_cast<uint64_t>(st.st_uid));
    EXPECT_EQ(got.group, static_cast<uint64_t>(st.st_gid));
    EXPECT_EQ(got.size, static_cast<int64_t>(st.st_size));
    EXPECT_EQ(got.accessTime, static_cast<int64_t>(st.st_atim.tv_sec));
    EXPECT_EQ(got.modifyTime, static_cast<int64_t>(st.st_mtim.tv_sec));
    EXPECT_EQ(got.changeTime, static_cast<int64_t>(st.st_ctim.tv_sec));
    ZEPO_STAT want = expected_record(st);
    EXPECT_EQ(std::memcmp(&got, &want, sizeof want), 0) << "record holds stale bytes";
}

// A file whose every carried status field is distinctive: two links, an owner and a group
// above 2^31, set times, 37 bytes.
bool make_distinct_file(const std::string &path, const std::string &link) {
    if (!write_file(path, std::string(37, 'x'))) return false;
    if (::link(path.c_str(), link.c_str()) != 0) return false;
    if (::chown(path.c_str(), 4000000000u, 3000000001u) != 0) return false;
    if (::chmod(path.c_str(), 0640) != 0) return false;
    struct timespec times[2] = {{1000000001, 5}, {1200000002, 7}};
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

}  // namespace

// ==== Status record layout ====================================================================

TEST(FilesStatRecord, IsSeventyTwoBytesWithTheFieldsAtTheirOffsets) {
    EXPECT_EQ(sizeof(ZEPO_STAT), 72u);
    EXPECT_EQ(offsetof(ZEPO_STAT, device), 0u);
    EXPECT_EQ(offsetof(ZEPO_STAT, inode), 8u);
    EXPECT_EQ(offsetof(ZEPO_STAT, mode), 16u);
    EXPECT_EQ(offsetof(ZEPO_STAT, linkCount), 20u);
    EXPECT_EQ(offsetof(ZEPO_STAT, owner), 24u);
    EXPECT_EQ(offsetof(ZEPO_STAT, group), 32u);
    EXPECT_EQ(offsetof(ZEPO_STAT, size), 40u);
    EXPECT_EQ(offsetof(ZEPO_STAT, accessTime), 48u);
    EXPECT_EQ(offsetof(ZEPO_STAT, modifyTime), 56u);
    EXPECT_EQ(offsetof(ZEPO_STAT, changeTime), 64u);
}

TEST(FilesStatRecord, SpaceRecordIsThreeDoublesTotalUsedAvailable) {
    EXPECT_EQ(sizeof(ZEPO_SPACE_INFO), 3 * sizeof(double));
    EXPECT_EQ(offsetof(ZEPO_SPACE_INFO, total), 0u);
    EXPECT_EQ(offsetof(ZEPO_SPACE_INFO, used), 8u);
    EXPECT_EQ(offsetof(ZEPO_SPACE_INFO, available), 16u);
}

// ==== Directories: refusals and service failures ==============================================

TEST(FilesDir, OpenDirRefusesOnlyANullPath) { EXPECT_REFUSED(ZEPO_OpenDir(nullptr), nullptr); }

TEST(FilesDir, OpenDirOfEmptyPathGoesToOpendirAndFailsWithEnoent) {
    EXPECT_SERVICE_FAILS(ZEPO_OpenDir(""), nullptr, ENOENT);
}

TEST(FilesDir, RmDirOfEmptyPathIsRefusedWithoutACall) {
    EXPECT_REFUSED(ZEPO_RmDir(""), -1);
    EXPECT_REFUSED(ZEPO_RmDir(nullptr), -1);
}

TEST(FilesDir, NullDirectoryStreamIsRefusedByEveryDirectoryWrapper) {
    EXPECT_REFUSED(ZEPO_CloseDir(nullptr), -1);
    EXPECT_REFUSED(ZEPO_ReadDir(nullptr), nullptr);
    EXPECT_REFUSED(ZEPO_DirFd(nullptr), -1);
    EXPECT_VOID_REFUSED(ZEPO_RewindDir(nullptr));
    EXPECT_VOID_REFUSED(ZEPO_SeekDir(nullptr, 3));
}

TEST(FilesDir, TellDirOfNullStreamGivesLow32BitsAllOnesNotMinusOne) {
    EXPECT_REFUSED(ZEPO_TellDir(nullptr), kLow32AllOnes);
    EXPECT_NE(ZEPO_TellDir(nullptr), INT64_C(-1));
}

TEST(FilesDir, ReadDirSOfNullDirGivesMinusOneAndLeavesOutUntouched) {
    int marker = 0;
    struct dirent *const untouched = reinterpret_cast<struct dirent *>(&marker);
    struct dirent *out = untouched;
    EXPECT_REFUSED(ZEPO_ReadDir_S(nullptr, sizeof(struct dirent), &out), -1);
    EXPECT_EQ(out, untouched);
}

TEST(FilesDir, ScanDirRefusesNullDirAndNullNameList) {
    TempDir tmp;
    struct dirent **list = nullptr;
    EXPECT_REFUSED(ZEPO_ScanDir(nullptr, &list, nullptr, nullptr), -1);
    EXPECT_EQ(list, nullptr);
    EXPECT_REFUSED(ZEPO_ScanDir(tmp.c_str(), nullptr, nullptr, nullptr), -1);
}

TEST(FilesDir, ScanDirOfEmptyPathGoesToScandirAndFailsWithEnoent) {
    struct dirent **list = nullptr;
    EXPECT_SERVICE_FAILS(ZEPO_ScanDir("", &list, nullptr, nullptr), -1, ENOENT);
}

TEST(FilesDir, ScanDirOfMissingFolderFailsWithEnoent) {
    TempDir tmp;
    struct dirent **list = nullptr;
    EXPECT_SERVICE_FAILS(ZEPO_ScanDir((tmp / "missing").c_str(), &list, nullptr, nullptr), -1,
                         ENOENT);
}

// A null first entry orders before (-1), a null second one after (1).
void expect_unequal_null_checks(int32_t (*sort)(const struct dirent **, const struct dirent **)) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "x", ""));
    struct dirent **list = nullptr;
    int n = ::scandir(tmp.c_str(), &list, skip_dots, nullptr);
    ASSERT_EQ(n, 1);
    const struct dirent *entry = list[0];
    EXPECT_REFUSED(sort(nullptr, &entry), -1);
    EXPECT_REFUSED(sort(&entry, nullptr), 1);
    EXPECT_REFUSED(sort(nullptr, nullptr), -1);
    ::free(list[0]);
    ::free(list);
}

TEST(FilesDir, AlphasortOfNullFirstEntryIsMinusOneAndOfNullSecondIsOne) {
    expect_unequal_null_checks(ZEPO_Alphasort);
}

TEST(FilesDir, VersionsortOfNullFirstEntryIsMinusOneAndOfNullSecondIsOne) {
    expect_unequal_null_checks(ZEPO_Versionsort);
}

TEST(FilesDir, ChDirRefusesNullAndEmptyPaths) {
    EXPECT_REFUSED(ZEPO_ChDir(nullptr), -1);
    EXPECT_REFUSED(ZEPO_ChDir(""), -1);
}

TEST(FilesDir, GetCwdRefusesANullBuffer) {
    // getcwd(NULL, n) would allocate a buffer; the wrapper refuses instead.
    EXPECT_REFUSED(ZEPO_GetCwd(nullptr, 4096), nullptr);
}

TEST(FilesDir, MkDirRefusesNullAndEmptyPaths) {
    EXPECT_REFUSED(ZEPO_MkDir(nullptr, 0755), -1);
    EXPECT_REFUSED(ZEPO_MkDir("", 0755), -1);
}

TEST(FilesDir, DirectoryServiceFailuresKeepTheirErrno) {
    TempDir tmp;
    const std::string missing = tmp / "missing";
    ASSERT_EQ(::mkdir((tmp / "full").c_str(), 0755), 0);
    ASSERT_TRUE(write_file(tmp / "full/f", "x"));
    EXPECT_SERVICE_FAILS(ZEPO_OpenDir(missing.c_str()), nullptr, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_RmDir(missing.c_str()), -1, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_RmDir((tmp / "full").c_str()), -1, ENOTEMPTY);
    EXPECT_SERVICE_FAILS(ZEPO_ChDir(missing.c_str()), -1, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_MkDir((tmp / "full").c_str(), 0755), -1, EEXIST);
    EXPECT_SERVICE_FAILS(ZEPO_MkDir((tmp / "no/such").c_str(), 0755), -1, ENOENT);
    char buf[8];
    EXPECT_SERVICE_FAILS(ZEPO_GetCwd(buf, 1), nullptr, ERANGE);
    EXPECT_SERVICE_FAILS(ZEPO_GetCwd(buf, 0), nullptr, EINVAL);
}

// ==== Directories: success paths ==============================================================

TEST(FilesDir, OpenReadAndCloseListEveryEntry) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "a1", "1"));
    ASSERT_TRUE(write_file(tmp / "b2", "2"));
    ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0755), 0);
    DIR *dir = ZEPO_OpenDir(tmp.c_str());
    ASSERT_NE(dir, nullptr);
    std::set<std::string> names;
    while (struct dirent *e = ZEPO_ReadDir(dir)) names.insert(e->d_name);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a1", "b2", "sub"}));
    EXPECT_EQ(ZEPO_ReadDir(dir), nullptr);
    EXPECT_EQ(ZEPO_CloseDir(dir), 0);
}

TEST(FilesDir, ReadDirSStoresEachEntryAndAtTheEndReturnsZeroAndStoresNull) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "only", "1"));
    DIR *dir = ZEPO_OpenDir(tmp.c_str());
    ASSERT_NE(dir, nullptr);
    std::set<std::string> names;
    for (int i = 0; i < 3; ++i) {
        struct dirent *out = nullptr;
        ASSERT_EQ(ZEPO_ReadDir_S(dir, sizeof(struct dirent), &out), 0);
        ASSERT_NE(out, nullptr);
        names.insert(out->d_name);
    }
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "only"}));
    int marker = 0;
    struct dirent *out = reinterpret_cast<struct dirent *>(&marker);
    EXPECT_EQ(ZEPO_ReadDir_S(dir, sizeof(struct dirent), &out), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ZEPO_CloseDir(dir), 0);
}

TEST(FilesDir, ReadDirSIgnoresTheSizeArgument) {
    TempDir tmp;
    DIR *dir = ZEPO_OpenDir(tmp.c_str());
    ASSERT_NE(dir, nullptr);
    std::set<std::string> names;
    struct dirent *out = nullptr;
    ASSERT_EQ(ZEPO_ReadDir_S(dir, 0, &out), 0);
    ASSERT_NE(out, nullptr);
    names.insert(out->d_name);
    out = nullptr;
    ASSERT_EQ(ZEPO_ReadDir_S(dir, 1, &out), 0);
    ASSERT_NE(out, nullptr);
    names.insert(out->d_name);
    EXPECT_EQ(names, (std::set<std::string>{".", ".."}));
    int marker = 0;
    out = reinterpret_cast<struct dirent *>(&marker);
    EXPECT_EQ(ZEPO_ReadDir_S(dir, 0xFFFFFFFFu, &out), 0);
    EXPECT_EQ(out, nullptr);
    ZEPO_CloseDir(dir);
}

TEST(FilesDir, DirFdGivesTheDescriptorOfTheOpenedFolder) {
    TempDir tmp;
    DIR *dir = ZEPO_OpenDir(tmp.c_str());
    ASSERT_NE(dir, nullptr);
    int fd = ZEPO_DirFd(dir);
    EXPECT_EQ(fd, ::dirfd(dir));
    struct stat by_fd, by_path;
    ASSERT_EQ(::fstat(fd, &by_fd), 0);
    ASSERT_EQ(::stat(tmp.c_str(), &by_path), 0);
    EXPECT_EQ(by_fd.st_ino, by_path.st_ino);
    EXPECT_EQ(by_fd.st_dev, by_path.st_dev);
    ZEPO_CloseDir(dir);
}

TEST(FilesDir, RewindDirStartsTheListingAgain) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "a", ""));
    ASSERT_TRUE(write_file(tmp / "b", ""));
    DIR *dir = ZEPO_OpenDir(tmp.c_str());
    ASSERT_NE(dir, nullptr);
    std::vector<std::string> first, second;
    while (struct dirent *e = ZEPO_ReadDir(dir)) first.push_back(e->d_name);
    ASSERT_EQ(first.size(), 4u);
    ZEPO_RewindDir(dir);
    while (struct dirent *e = ZEPO_ReadDir(dir)) second.push_back(e->d_name);
    EXPECT_EQ(first, second);
    ZEPO_CloseDir(dir);
}

TEST(FilesDir, TellDirGivesTheStreamPositionAndSeekDirToZeroRestarts) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "a", ""));
    DIR *dir = ZEPO_OpenDir(tmp.c_str());
    ASSERT_NE(dir, nullptr);
    EXPECT_EQ(ZEPO_TellDir(dir), static_cast<int64_t>(::telldir(dir)));
    struct dirent *e = ZEPO_ReadDir(dir);
    ASSERT_NE(e, nullptr);
    const std::string first = e->d_name;
    EXPECT_EQ(ZEPO_TellDir(dir), static_cast<int64_t>(::telldir(dir)));
    while (ZEPO_ReadDir(dir) != nullptr) {
    }
    ZEPO_SeekDir(dir, 0);
    e = ZEPO_ReadDir(dir);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(first, e->d_name);
    ZEPO_CloseDir(dir);
}

TEST(FilesDir, SeekDirReturnsToAPositionToldByTellDir) {
    // Positions in /proc are small entry numbers, so they fit the 32-bit argument (those of
    // a hashed ext4 folder do not).
    DIR *dir = ZEPO_OpenDir("/proc/self");
    ASSERT_NE(dir, nullptr);
    ASSERT_NE(ZEPO_ReadDir(dir), nullptr);
    ASSERT_NE(ZEPO_ReadDir(dir), nullptr);
    ASSERT_NE(ZEPO_ReadDir(dir), nullptr);
    const int64_t pos = ZEPO_TellDir(dir);
    ASSERT_EQ(pos, static_cast<int64_t>(::telldir(dir)));
    ASSERT_GE(pos, 0);
    ASSERT_LE(pos, INT32_MAX);
    struct dirent *e = ZEPO_ReadDir(dir);
    ASSERT_NE(e, nullptr);
    const std::string fourth = e->d_name;
    ASSERT_NE(ZEPO_ReadDir(dir), nullptr);
    ASSERT_NE(ZEPO_ReadDir(dir), nullptr);
    ZEPO_SeekDir(dir, static_cast<int32_t>(pos));
    EXPECT_EQ(ZEPO_TellDir(dir), pos);
    e = ZEPO_ReadDir(dir);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(fourth, e->d_name);
    ZEPO_CloseDir(dir);
}

TEST(FilesDir, ScanDirWithAlphasortOrdersNamesByText) {
    TempDir tmp;
    for (const char *name : {"file10", "file9", "file1", "file2"})
        ASSERT_TRUE(write_file(tmp / name, ""));
    struct dirent **list = nullptr;
    int n = ZEPO_ScanDir(tmp.c_str(), &list, skip_dots, ZEPO_Alphasort);
    ASSERT_EQ(n, 4);
    EXPECT_EQ(names_of(list, n), (std::vector<std::string>{"file1", "file10", "file2", "file9"}));
    ZEPO_DestoryNameList(list, static_cast<uint32_t>(n));
}

TEST(FilesDir, ScanDirWithVersionsortOrdersNumbersByValue) {
    TempDir tmp;
    for (const char *name : {"file10", "file9", "file1", "file2"})
        ASSERT_TRUE(write_file(tmp / name, ""));
    struct dirent **list = nullptr;
    int n = ZEPO_ScanDir(tmp.c_str(), &list, skip_dots, ZEPO_Versionsort);
    ASSERT_EQ(n, 4);
    EXPECT_EQ(names_of(list, n), (std::vector<std::string>{"file1", "file2", "file9", "file10"}));
    ZEPO_DestoryNameList(list, static_cast<uint32_t>(n));
}

TEST(FilesDir, ScanDirWithoutFilterOrCompareListsEveryEntry) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "a", ""));
    ASSERT_TRUE(write_file(tmp / "b", ""));
    struct dirent **list = nullptr;
    int n = ZEPO_ScanDir(tmp.c_str(), &list, nullptr, nullptr);
    ASSERT_EQ(n, 4);
    std::vector<std::string> v = names_of(list, n);
    EXPECT_EQ(std::set<std::string>(v.begin(), v.end()),
              (std::set<std::string>{".", "..", "a", "b"}));
    ZEPO_DestoryNameList(list, static_cast<uint32_t>(n));
}

TEST(FilesDir, AlphasortAndVersionsortOrderTwoEntriesAsTheCLibrary) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "file10", ""));
    ASSERT_TRUE(write_file(tmp / "file9", ""));
    struct dirent **list = nullptr;
    int n = ::scandir(tmp.c_str(), &list, skip_dots, ::alphasort);
    ASSERT_EQ(n, 2);
    const struct dirent *ten = list[0];   // "file10"
    const struct dirent *nine = list[1];  // "file9"
    ASSERT_STREQ(ten->d_name, "file10");
    EXPECT_LT(ZEPO_Alphasort(&ten, &nine), 0);
    EXPECT_GT(ZEPO_Alphasort(&nine, &ten), 0);
    EXPECT_EQ(ZEPO_Alphasort(&ten, &ten), 0);
    EXPECT_EQ(sign(ZEPO_Alphasort(&ten, &nine)), sign(::alphasort(&ten, &nine)));
    EXPECT_GT(ZEPO_Versionsort(&ten, &nine), 0);
    EXPECT_LT(ZEPO_Versionsort(&nine, &ten), 0);
    EXPECT_EQ(ZEPO_Versionsort(&nine, &nine), 0);
    EXPECT_EQ(sign(ZEPO_Versionsort(&ten, &nine)), sign(::versionsort(&ten, &nine)));
    ::free(list[0]);
    ::free(list[1]);
    ::free(list);
}

TEST(FilesDir, MkDirChDirGetCwdAndRmDirWorkOnAFolder) {
    TempDir tmp;
    UmaskGuard mask(0);
    const std::string sub = tmp / "sub";
    EXPECT_EQ(ZEPO_MkDir(sub.c_str(), 0751), 0);
    EXPECT_TRUE(is_dir(sub));
    EXPECT_EQ(perms_of(sub), 0751u);
    ASSERT_EQ(ZEPO_ChDir(sub.c_str()), 0);
    char buf[4096];
    std::memset(buf, 'X', sizeof buf);
    ASSERT_EQ(ZEPO_GetCwd(buf, static_cast<int32_t>(sizeof buf)), buf);
    char *real = ::realpath(sub.c_str(), nullptr);
    ASSERT_NE(real, nullptr);
    EXPECT_STREQ(buf, real);
    ::free(real);
    ASSERT_EQ(ZEPO_ChDir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_RmDir(sub.c_str()), 0);
    EXPECT_FALSE(exists(sub));
}

// ==== Paths and names ===========================================================================

TEST(FilesPath, AccessRemoveAndRenameRefuseNullAndEmptyNames) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "x"));
    EXPECT_REFUSED(ZEPO_Access(nullptr, F_OK), -1);
    EXPECT_REFUSED(ZEPO_Access("", F_OK), -1);
    EXPECT_REFUSED(ZEPO_Remove(nullptr), -1);
    EXPECT_REFUSED(ZEPO_Remove(""), -1);
    EXPECT_REFUSED(ZEPO_Rename(nullptr, (tmp / "g").c_str()), -1);
    EXPECT_REFUSED(ZEPO_Rename("", (tmp / "g").c_str()), -1);
    EXPECT_REFUSED(ZEPO_Rename(file.c_str(), nullptr), -1);
    EXPECT_REFUSED(ZEPO_Rename(file.c_str(), ""), -1);
    EXPECT_TRUE(is_regular(file));
    EXPECT_FALSE(exists(tmp / "g"));
}

TEST(FilesPath, AccessRemoveAndRenameKeepTheErrnoOfTheService) {
    TempDir tmp;
    const std::string missing = tmp / "missing";
    EXPECT_SERVICE_FAILS(ZEPO_Access(missing.c_str(), F_OK), -1, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_Remove(missing.c_str()), -1, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_Rename(missing.c_str(), (tmp / "g").c_str()), -1, ENOENT);
}

TEST(FilesPath, AccessRemoveAndRenameWorkOnAFile) {
    TempDir tmp;
    const std::string a = tmp / "a";
    const std::string b = tmp / "b";
    ASSERT_TRUE(write_file(a, "content"));
    EXPECT_EQ(ZEPO_Access(a.c_str(), F_OK), 0);
    EXPECT_EQ(ZEPO_Access(a.c_str(), R_OK | W_OK), 0);
    EXPECT_EQ(ZEPO_Rename(a.c_str(), b.c_str()), 0);
    EXPECT_FALSE(exists(a));
    EXPECT_EQ(read_file(b), "content");
    EXPECT_EQ(ZEPO_Remove(b.c_str()), 0);
    EXPECT_FALSE(exists(b));
    ASSERT_EQ(::mkdir(a.c_str(), 0755), 0);
    EXPECT_EQ(ZEPO_Remove(a.c_str()), 0);  // remove takes an empty folder too
    EXPECT_FALSE(exists(a));
}

// ==== File status ===============================================================================

TEST(FilesStat, StatRefusesNullPathAndNullRecordLeavingTheRecord) {
    TempDir tmp;
    ZEPO_STAT record, pattern;
    std::memset(&pattern, 0x5C, sizeof pattern);
    record = pattern;
    EXPECT_REFUSED(ZEPO_Stat(nullptr, &record), -1);
    EXPECT_EQ(std::memcmp(&record, &pattern, sizeof record), 0);
    EXPECT_REFUSED(ZEPO_Stat(tmp.c_str(), nullptr), -1);
    EXPECT_REFUSED(ZEPO_FStat(0, nullptr), -1);
}

TEST(FilesStat, StatOfEmptyPathGoesToStatAndFailsWithEnoent) {
    ZEPO_STAT record, pattern;
    std::memset(&pattern, 0x5C, sizeof pattern);
    record = pattern;
    EXPECT_SERVICE_FAILS(ZEPO_Stat("", &record), -1, ENOENT);
    EXPECT_EQ(std::memcmp(&record, &pattern, sizeof record), 0);
}

TEST(FilesStat, StatOfMissingFileGivesMinusOneAndLeavesTheRecordAsItWas) {
    TempDir tmp;
    ZEPO_STAT record, pattern;
    std::memset(&pattern, 0x3B, sizeof pattern);
    record = pattern;
    EXPECT_SERVICE_FAILS(ZEPO_Stat((tmp / "missing").c_str(), &record), -1, ENOENT);
    EXPECT_EQ(std::memcmp(&record, &pattern, sizeof record), 0);
}

TEST(FilesStat, FStatOfBadDescriptorGivesMinusOneWithEbadfAndLeavesTheRecord) {
    ZEPO_STAT record, pattern;
    std::memset(&pattern, 0x3B, sizeof pattern);
    record = pattern;
    EXPECT_SERVICE_FAILS(ZEPO_FStat(-1, &record), -1, EBADF);
    EXPECT_EQ(std::memcmp(&record, &pattern, sizeof record), 0);
}

TEST(FilesStat, StatSetsEveryCarriedFieldAndLeavesNoStaleData) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(make_distinct_file(file, tmp / "g"));
    struct stat st;
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    ASSERT_EQ(st.st_nlink, 2u);
    ASSERT_EQ(st.st_uid, 4000000000u);
    ZEPO_STAT record;
    std::memset(&record, 0xAA, sizeof record);
    ASSERT_EQ(ZEPO_Stat(file.c_str(), &record), 0);
    expect_record_matches(record, st);
    EXPECT_EQ(record.owner, UINT64_C(4000000000));  // zero-extended, not sign-extended
    EXPECT_EQ(record.group, UINT64_C(3000000001));
    EXPECT_EQ(record.size, 37);
    EXPECT_EQ(record.accessTime, 1000000001);
    EXPECT_EQ(record.modifyTime, 1200000002);
    EXPECT_EQ(record.mode, static_cast<uint32_t>(S_IFREG | 0640));
}

TEST(FilesStat, StatOfAFolderCarriesItsTypeBits) {
    TempDir tmp;
    struct stat st;
    ASSERT_EQ(::stat(tmp.c_str(), &st), 0);
    ZEPO_STAT record;
    std::memset(&record, 0xAA, sizeof record);
    ASSERT_EQ(ZEPO_Stat(tmp.c_str(), &record), 0);
    expect_record_matches(record, st);
    EXPECT_TRUE(S_ISDIR(record.mode));
}

TEST(FilesStat, FStatSetsEveryCarriedFieldAndLeavesNoStaleData) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(make_distinct_file(file, tmp / "g"));
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(::fstat(fd, &st), 0);
    ZEPO_STAT record;
    std::memset(&record, 0xAA, sizeof record);
    ASSERT_EQ(ZEPO_FStat(fd, &record), 0);
    expect_record_matches(record, st);
    EXPECT_EQ(record.owner, UINT64_C(4000000000));
    ::close(fd);
}

// ==== File size =================================================================================

TEST(FilesSize, GetFileSizeRefusesNullOrEmptyPathAndNullSize) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "f", "abc"));
    uint32_t size = 0x12345678u;
    EXPECT_REFUSED(ZEPO_GetFileSize(nullptr, &size), -1);
    EXPECT_REFUSED(ZEPO_GetFileSize("", &size), -1);
    EXPECT_EQ(size, 0x12345678u);
    EXPECT_REFUSED(ZEPO_GetFileSize((tmp / "f").c_str(), nullptr), -1);
}

TEST(FilesSize, GetFileSizeOfMissingFileGivesOneAndLeavesTheSize) {
    TempDir tmp;
    uint32_t size = 0x12345678u;
    EXPECT_EQ(ZEPO_GetFileSize((tmp / "missing").c_str(), &size), 1);
    EXPECT_EQ(size, 0x12345678u);
}

TEST(FilesSize, GetFileSizeOfSmallAndEmptyFilesStoresTheirSizes) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "small", std::string(1234, 'q')));
    ASSERT_TRUE(write_file(tmp / "empty", ""));
    uint32_t size = 0x12345678u;
    EXPECT_EQ(ZEPO_GetFileSize((tmp / "small").c_str(), &size), 0);
    EXPECT_EQ(size, 1234u);
    size = 0x12345678u;
    EXPECT_EQ(ZEPO_GetFileSize((tmp / "empty").c_str(), &size), 0);
    EXPECT_EQ(size, 0u);
}

TEST(FilesSize, GetFileSizeOf4294967294ByteFileGivesZeroAndThatSize) {
    TempDir tmp;
    const std::string file = tmp / "big";
    ASSERT_TRUE(make_sparse(file, INT64_C(4294967294)));
    uint32_t size = 7;
    EXPECT_EQ(ZEPO_GetFileSize(file.c_str(), &size), 0);
    EXPECT_EQ(size, 4294967294u);
}

TEST(FilesSize, GetFileSizeOf4294967295ByteFileGivesOneAndLeavesTheSize) {
    TempDir tmp;
    const std::string file = tmp / "big";
    ASSERT_TRUE(make_sparse(file, INT64_C(4294967295)));
    uint32_t size = 7;
    EXPECT_EQ(ZEPO_GetFileSize(file.c_str(), &size), 1);
    EXPECT_EQ(size, 7u);
}

TEST(FilesSize, GetFileSizeOfFileBeyondFourGibibytesGivesOne) {
    TempDir tmp;
    const std::string file = tmp / "big";
    ASSERT_TRUE(make_sparse(file, INT64_C(4294967296) + 100));
    uint32_t size = 7;
    EXPECT_EQ(ZEPO_GetFileSize(file.c_str(), &size), 1);
    EXPECT_EQ(size, 7u);
}

// ==== Streams ===================================================================================

TEST(FilesStream, FopenAndFsopenRefuseNullAndEmptyPathsAndModes) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "x"));
    EXPECT_REFUSED(ZEPO_Fopen(nullptr, "r"), nullptr);
    EXPECT_REFUSED(ZEPO_Fopen("", "r"), nullptr);
    EXPECT_REFUSED(ZEPO_Fopen(file.c_str(), nullptr), nullptr);
    EXPECT_REFUSED(ZEPO_Fopen(file.c_str(), ""), nullptr);  // fopen would say EINVAL
    EXPECT_REFUSED(ZEPO_Fsopen(nullptr, "r"), nullptr);
    EXPECT_REFUSED(ZEPO_Fsopen("", "r"), nullptr);
    EXPECT_REFUSED(ZEPO_Fsopen(file.c_str(), nullptr), nullptr);
    EXPECT_REFUSED(ZEPO_Fsopen(file.c_str(), ""), nullptr);
}

TEST(FilesStream, NullStreamIsRefusedByEveryStreamWrapper) {
    char buf[16] = "keep";
    fpos_t pos;
    std::memset(&pos, 0, sizeof pos);
    EXPECT_REFUSED(ZEPO_Fflush(nullptr), -1);  // fflush(NULL) would flush all and give 0
    EXPECT_REFUSED(ZEPO_Fclose(nullptr), -1);
    EXPECT_REFUSED(ZEPO_Fgetc(nullptr), -1);
    EXPECT_REFUSED(ZEPO_Fputc('a', nullptr), -1);
    EXPECT_REFUSED(ZEPO_Fgets(buf, sizeof buf, nullptr), nullptr);
    EXPECT_STREQ(buf, "keep");
    EXPECT_REFUSED(ZEPO_Fputs("a", nullptr), -1);
    EXPECT_REFUSED(ZEPO_Fread(buf, 1, 4, nullptr), 0u);
    EXPECT_REFUSED(ZEPO_Fwrite(buf, 1, 4, nullptr), 0u);
    EXPECT_REFUSED(ZEPO_Fseek(nullptr, 0, SEEK_SET), -1);
    EXPECT_VOID_REFUSED(ZEPO_Rewind(nullptr));
    EXPECT_REFUSED(ZEPO_Fgetpos(nullptr, &pos), -1);
    EXPECT_REFUSED(ZEPO_Fsetpos(nullptr, &pos), -1);
    EXPECT_VOID_REFUSED(ZEPO_Clearerr(nullptr));
    EXPECT_REFUSED(ZEPO_Feof(nullptr), -1);
    EXPECT_REFUSED(ZEPO_Ferror(nullptr), -1);
    EXPECT_REFUSED(ZEPO_Fileno(nullptr), -1);
}

TEST(FilesStream, RefusalOfTheSixtyFourBitResultsHasAPositiveName) {
    EXPECT_EQ(QEL_REFUSED64, kLow32AllOnes);
    EXPECT_GT(QEL_REFUSED64, 0);  // what a test "< 0" misses
    EXPECT_EQ(ZEPO_Ftell(nullptr), QEL_REFUSED64);
    EXPECT_EQ(ZEPO_TellDir(nullptr), QEL_REFUSED64);
    EXPECT_EQ(ZEPO_Read(0, nullptr, 1), QEL_REFUSED64);
    EXPECT_EQ(ZEPO_Write(1, nullptr, 1), QEL_REFUSED64);
}

TEST(FilesStream, FtellOfNullStreamGivesLow32BitsAllOnes) {
    EXPECT_REFUSED(ZEPO_Ftell(nullptr), kLow32AllOnes);
    EXPECT_NE(ZEPO_Ftell(nullptr), INT64_C(-1));
    EXPECT_EQ(static_cast<uint32_t>(ZEPO_Ftell(nullptr)), 0xFFFFFFFFu);
}

TEST(FilesStream, NullBufferOrPositionIsRefusedOnAnOpenStream) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "abcdef"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r+");
    ASSERT_NE(f, nullptr);
    EXPECT_REFUSED(ZEPO_Fgets(nullptr, 4, f), nullptr);
    EXPECT_REFUSED(ZEPO_Fputs(nullptr, f), -1);
    EXPECT_REFUSED(ZEPO_Fread(nullptr, 1, 4, f), 0u);
    EXPECT_REFUSED(ZEPO_Fwrite(nullptr, 1, 4, f), 0u);
    EXPECT_REFUSED(ZEPO_Fgetpos(f, nullptr), -1);
    EXPECT_REFUSED(ZEPO_Fsetpos(f, nullptr), -1);
    // Nothing was read or written by the refused calls.
    EXPECT_EQ(ZEPO_Ftell(f), 0);
    EXPECT_EQ(ZEPO_Fgetc(f), 'a');
    EXPECT_EQ(ZEPO_Fclose(f), 0);
    EXPECT_EQ(read_file(file), "abcdef");
}

TEST(FilesStream, FputsOfEmptyStringIsNotRefusedAndWritesNothing) {
    TempDir tmp;
    const std::string file = tmp / "f";
    FILE *f = ZEPO_Fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    EXPECT_GE(ZEPO_Fputs("", f), 0);
    EXPECT_EQ(ZEPO_Fclose(f), 0);
    EXPECT_EQ(size_of(file), 0);
}

TEST(FilesStream, FopenOfMissingFileKeepsEnoent) {
    TempDir tmp;
    EXPECT_SERVICE_FAILS(ZEPO_Fopen((tmp / "missing").c_str(), "r"), nullptr, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_Fsopen((tmp / "missing").c_str(), "r"), nullptr, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_Fopen((tmp / "no/f").c_str(), "w"), nullptr, ENOENT);
}

TEST(FilesStream, FopenAndFsopenOpenTheSameWay) {
    TempDir tmp;
    const std::string file = tmp / "f";
    FILE *w = ZEPO_Fsopen(file.c_str(), "w");
    ASSERT_NE(w, nullptr);
    EXPECT_GE(ZEPO_Fputs("hello\n", w), 0);
    EXPECT_EQ(ZEPO_Fclose(w), 0);
    EXPECT_EQ(read_file(file), "hello\n");

    FILE *a = ZEPO_Fopen(file.c_str(), "r");
    FILE *b = ZEPO_Fsopen(file.c_str(), "r");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    char ba[16], bb[16];
    EXPECT_EQ(ZEPO_Fgets(ba, sizeof ba, a), ba);
    EXPECT_EQ(ZEPO_Fgets(bb, sizeof bb, b), bb);
    EXPECT_STREQ(ba, "hello\n");
    EXPECT_STREQ(bb, "hello\n");
    EXPECT_EQ(ZEPO_Fclose(a), 0);
    EXPECT_EQ(ZEPO_Fclose(b), 0);

    // "a" appends through either name; "w" truncates through either name.
    FILE *ap = ZEPO_Fsopen(file.c_str(), "a");
    ASSERT_NE(ap, nullptr);
    EXPECT_GE(ZEPO_Fputs("more", ap), 0);
    EXPECT_EQ(ZEPO_Fclose(ap), 0);
    EXPECT_EQ(read_file(file), "hello\nmore");
    FILE *tr = ZEPO_Fopen(file.c_str(), "w");
    ASSERT_NE(tr, nullptr);
    EXPECT_EQ(ZEPO_Fclose(tr), 0);
    EXPECT_EQ(size_of(file), 0);
}

TEST(FilesStream, FputsFputcAndFwriteReachTheFileAfterFflush) {
    TempDir tmp;
    const std::string file = tmp / "f";
    FILE *f = ZEPO_Fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    EXPECT_GE(ZEPO_Fputs("ab", f), 0);
    EXPECT_EQ(ZEPO_Fputc('c', f), 'c');
    const char words[] = "0123456789AB";
    EXPECT_EQ(ZEPO_Fwrite(words, 4, 3, f), 3u);
    EXPECT_EQ(size_of(file), 0);  // still in the stream's buffer
    EXPECT_EQ(ZEPO_Fflush(f), 0);
    EXPECT_EQ(read_file(file), "abc0123456789AB");
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, FgetsFgetcAndFreadReadTheFile) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "line one\nXY0123456789AB"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    char buf[32];
    EXPECT_EQ(ZEPO_Fgets(buf, sizeof buf, f), buf);
    EXPECT_STREQ(buf, "line one\n");
    EXPECT_EQ(ZEPO_Fgetc(f), 'X');
    EXPECT_EQ(ZEPO_Fgets(buf, 2, f), buf);  // n counts the terminator
    EXPECT_STREQ(buf, "Y");
    char items[32] = {};
    EXPECT_EQ(ZEPO_Fread(items, 4, 5, f), 3u);  // 12 bytes left: three whole items
    EXPECT_EQ(std::string(items, 12), "0123456789AB");
    EXPECT_EQ(ZEPO_Fgetc(f), EOF);
    EXPECT_EQ(ZEPO_Fgets(buf, sizeof buf, f), nullptr);
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, FseekSignExtendsANegativeOffset) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "abcdefghij"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ZEPO_Fseek(f, -3, SEEK_END), 0);
    EXPECT_EQ(ZEPO_Ftell(f), 7);
    EXPECT_EQ(ZEPO_Fgetc(f), 'h');
    EXPECT_EQ(ZEPO_Fseek(f, -2, SEEK_CUR), 0);
    EXPECT_EQ(ZEPO_Ftell(f), 6);
    EXPECT_EQ(ZEPO_Fgetc(f), 'g');
    EXPECT_EQ(ZEPO_Fseek(f, 2, SEEK_SET), 0);
    EXPECT_EQ(ZEPO_Fgetc(f), 'c');
    EXPECT_EQ(ZEPO_Ftell(f), static_cast<int64_t>(::ftell(f)));
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, FseekBeforeTheStartFailsWithEinval) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "abc"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    // Sign-extended, -1 is before the start; zero-extended it would be a valid 4 GiB offset.
    EXPECT_SERVICE_FAILS(ZEPO_Fseek(f, -1, SEEK_SET), -1, EINVAL);
    EXPECT_EQ(ZEPO_Ftell(f), 0);
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, FtellOfAPipeGivesMinusOneWithEspipe) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    FILE *f = ::fdopen(fds[0], "r");
    ASSERT_NE(f, nullptr);
    EXPECT_SERVICE_FAILS(ZEPO_Ftell(f), INT64_C(-1), ESPIPE);
    ::fclose(f);
    ::close(fds[1]);
}

TEST(FilesStream, FgetposAndFsetposReturnToASavedPosition) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "abcdef"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(ZEPO_Fgetc(f), 'a');
    ASSERT_EQ(ZEPO_Fgetc(f), 'b');
    fpos_t pos;
    EXPECT_EQ(ZEPO_Fgetpos(f, &pos), 0);
    EXPECT_EQ(ZEPO_Fgetc(f), 'c');
    EXPECT_EQ(ZEPO_Fgetc(f), 'd');
    EXPECT_EQ(ZEPO_Fsetpos(f, &pos), 0);
    EXPECT_EQ(ZEPO_Ftell(f), 2);
    EXPECT_EQ(ZEPO_Fgetc(f), 'c');
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, RewindGoesBackToTheStart) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "xyz"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(ZEPO_Fgetc(f), 'x');
    ASSERT_EQ(ZEPO_Fgetc(f), 'y');
    ZEPO_Rewind(f);
    EXPECT_EQ(ZEPO_Ftell(f), 0);
    EXPECT_EQ(ZEPO_Fgetc(f), 'x');
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, FeofIsSetAtTheEndAndClearerrClearsIt) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "a"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ZEPO_Feof(f), 0);
    EXPECT_EQ(ZEPO_Fgetc(f), 'a');
    EXPECT_EQ(ZEPO_Feof(f), 0);
    EXPECT_EQ(ZEPO_Fgetc(f), EOF);
    EXPECT_NE(ZEPO_Feof(f), 0);
    EXPECT_EQ(ZEPO_Ferror(f), 0);
    ZEPO_Clearerr(f);
    EXPECT_EQ(ZEPO_Feof(f), 0);
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, FerrorIsSetByAFailedWriteAndClearerrClearsIt) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "a"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ZEPO_Ferror(f), 0);
    EXPECT_SERVICE_FAILS(ZEPO_Fputc('z', f), EOF, EBADF);
    EXPECT_NE(ZEPO_Ferror(f), 0);
    ZEPO_Clearerr(f);
    EXPECT_EQ(ZEPO_Ferror(f), 0);
    EXPECT_EQ(ZEPO_Fclose(f), 0);
    EXPECT_EQ(read_file(file), "a");
}

TEST(FilesStream, FilenoGivesTheDescriptorOfTheStream) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "a"));
    FILE *f = ZEPO_Fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    int fd = ZEPO_Fileno(f);
    EXPECT_EQ(fd, ::fileno(f));
    struct stat by_fd, by_path;
    ASSERT_EQ(::fstat(fd, &by_fd), 0);
    ASSERT_EQ(::stat(file.c_str(), &by_path), 0);
    EXPECT_EQ(by_fd.st_ino, by_path.st_ino);
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

TEST(FilesStream, TmpFileGivesAReadWriteStream) {
    FILE *f = ZEPO_TmpFile();
    ASSERT_NE(f, nullptr);
    EXPECT_GE(ZEPO_Fputs("scratch", f), 0);
    EXPECT_EQ(ZEPO_Ftell(f), 7);
    ZEPO_Rewind(f);
    char buf[16];
    EXPECT_EQ(ZEPO_Fgets(buf, sizeof buf, f), buf);
    EXPECT_STREQ(buf, "scratch");
    EXPECT_EQ(ZEPO_Fclose(f), 0);
}

// ==== Descriptors ===============================================================================

TEST(FilesFd, OpenAndCreatRefuseNullAndEmptyPaths) {
    EXPECT_REFUSED(ZEPO_Open(nullptr, O_RDONLY, 0), -1);
    EXPECT_REFUSED(ZEPO_Open("", O_RDONLY, 0), -1);
    EXPECT_REFUSED(ZEPO_Creat(nullptr, 0644), -1);
    EXPECT_REFUSED(ZEPO_Creat("", 0644), -1);
}

TEST(FilesFd, ReadOfNullBufferGives4294967295AsA64BitValue) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], "data", 4), 4);
    EXPECT_REFUSED(ZEPO_Read(fds[0], nullptr, 4), kLow32AllOnes);
    EXPECT_NE(ZEPO_Read(fds[0], nullptr, 4), INT64_C(-1));
    EXPECT_REFUSED(ZEPO_Read(fds[0], nullptr, 0), kLow32AllOnes);
    // The refused reads consumed nothing.
    char buf[8] = {};
    EXPECT_EQ(ZEPO_Read(fds[0], buf, sizeof buf), 4);
    EXPECT_EQ(std::string(buf, 4), "data");
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(FilesFd, WriteOfNullBufferGives4294967295AsA64BitValue) {
    TempDir tmp;
    const std::string file = tmp / "f";
    int fd = ::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_REFUSED(ZEPO_Write(fd, nullptr, 4), kLow32AllOnes);
    EXPECT_NE(ZEPO_Write(fd, nullptr, 4), INT64_C(-1));
    EXPECT_REFUSED(ZEPO_Write(fd, nullptr, 0), kLow32AllOnes);
    ::close(fd);
    EXPECT_EQ(size_of(file), 0);
}

TEST(FilesFd, DescriptorServiceFailuresGiveMinusOneWithTheirErrno) {
    TempDir tmp;
    char buf[4] = {};
    int32_t flags = 0;
    EXPECT_SERVICE_FAILS(ZEPO_Open((tmp / "missing").c_str(), O_RDONLY, 0), -1, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_Creat((tmp / "no/f").c_str(), 0644), -1, ENOENT);
    EXPECT_SERVICE_FAILS(ZEPO_Read(-1, buf, sizeof buf), INT64_C(-1), EBADF);
    EXPECT_SERVICE_FAILS(ZEPO_Write(-1, buf, sizeof buf), INT64_C(-1), EBADF);
    EXPECT_SERVICE_FAILS(ZEPO_Close(-1), -1, EBADF);
    EXPECT_SERVICE_FAILS(ZEPO_CloseHandle(-1), -1, EBADF);
    EXPECT_SERVICE_FAILS(ZEPO_LSeek(-1, 0, SEEK_SET), INT64_C(-1), EBADF);
    EXPECT_SERVICE_FAILS(ZEPO_Ftruncate(-1, 0), -1, EBADF);
    EXPECT_SERVICE_FAILS(
        ZEPO_Ioctl(-1, FIONREAD, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&flags))), -1,
        EBADF);
    EXPECT_SERVICE_FAILS(ZEPO_Fcntl(-1, F_GETFD), -1, EBADF);
}

TEST(FilesFd, OpenCreatesWithTheModeLessTheMask) {
    TempDir tmp;
    UmaskGuard mask(022);
    const std::string file = tmp / "f";
    int fd = ZEPO_Open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(perms_of(file), 0644u);
    EXPECT_EQ(ZEPO_Close(fd), 0);
    EXPECT_SERVICE_FAILS(ZEPO_Open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0666), -1, EEXIST);
}

TEST(FilesFd, OpenPassesTheModeForAnUnnamedTemporaryFileToo) {
    // O_TMPFILE needs the mode although O_CREAT is absent: the mode must always go through.
    TempDir tmp;
    UmaskGuard mask(0);
    int fd = ZEPO_Open(tmp.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0604);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    struct stat st;
    ASSERT_EQ(::fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0604u);
    EXPECT_EQ(ZEPO_Close(fd), 0);
}

TEST(FilesFd, CreatCreatesOrTruncatesAndOpensForWritingOnly) {
    TempDir tmp;
    UmaskGuard mask(0);
    const std::string file = tmp / "f";
    int fd = ZEPO_Creat(file.c_str(), 0640);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(perms_of(file), 0640u);
    EXPECT_EQ(ZEPO_Write(fd, "hello", 5), 5);
    char buf[8];
    EXPECT_SERVICE_FAILS(ZEPO_Read(fd, buf, sizeof buf), INT64_C(-1), EBADF);
    EXPECT_EQ(ZEPO_Close(fd), 0);
    EXPECT_EQ(size_of(file), 5);
    fd = ZEPO_Creat(file.c_str(), 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(size_of(file), 0);
    EXPECT_EQ(perms_of(file), 0640u);  // an existing file keeps its bits
    EXPECT_EQ(ZEPO_CloseHandle(fd), 0);
}

TEST(FilesFd, WriteAndReadMoveBytesThroughAFile) {
    TempDir tmp;
    const std::string file = tmp / "f";
    int fd = ZEPO_Open(file.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const std::string data = pattern_bytes(3000, 1);
    EXPECT_EQ(ZEPO_Write(fd, data.data(), static_cast<uint32_t>(data.size())), 3000);
    EXPECT_EQ(ZEPO_Write(fd, data.data(), 0), 0);
    EXPECT_EQ(ZEPO_LSeek(fd, 0, SEEK_SET), 0);
    std::string back(4000, '\0');
    EXPECT_EQ(ZEPO_Read(fd, &back[0], 4000), 3000);
    back.resize(3000);
    EXPECT_EQ(back, data);
    char more[4];
    EXPECT_EQ(ZEPO_Read(fd, more, sizeof more), 0);
    EXPECT_EQ(ZEPO_Close(fd), 0);
}

TEST(FilesFd, LSeekSignExtendsANegativeOffset) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "abcdefghij"));
    int fd = ZEPO_Open(file.c_str(), O_RDONLY | O_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ZEPO_LSeek(fd, -2, SEEK_END), 8);
    char c = 0;
    EXPECT_EQ(ZEPO_Read(fd, &c, 1), 1);
    EXPECT_EQ(c, 'i');
    EXPECT_EQ(ZEPO_LSeek(fd, -5, SEEK_CUR), 4);
    EXPECT_EQ(ZEPO_LSeek(fd, 0, SEEK_CUR), 4);
    // Sign-extended, -1 is before the start; zero-extended it would be a valid 4 GiB offset.
    EXPECT_SERVICE_FAILS(ZEPO_LSeek(fd, -1, SEEK_SET), INT64_C(-1), EINVAL);
    EXPECT_EQ(ZEPO_LSeek(fd, INT32_MAX, SEEK_SET), INT64_C(2147483647));
    EXPECT_EQ(ZEPO_Close(fd), 0);
}

TEST(FilesFd, LSeekOfAPipeFailsWithEspipe) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_SERVICE_FAILS(ZEPO_LSeek(fds[0], 0, SEEK_CUR), INT64_C(-1), ESPIPE);
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(FilesFd, FtruncateSetsTheLengthAndSignExtendsANegativeOne) {
    TempDir tmp;
    const std::string file = tmp / "f";
    ASSERT_TRUE(write_file(file, "abcdefghij"));
    int fd = ZEPO_Open(file.c_str(), O_RDWR | O_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ZEPO_Ftruncate(fd, 4), 0);
    EXPECT_EQ(size_of(file), 4);
    EXPECT_EQ(ZEPO_Ftruncate(fd, 100), 0);
    EXPECT_EQ(size_of(file), 100);
    // Zero-extended, -1 would make a 4 GiB file; sign-extended it is refused by the kernel.
    EXPECT_SERVICE_FAILS(ZEPO_Ftruncate(fd, -1), -1, EINVAL);
    EXPECT_EQ(size_of(file), 100);
    EXPECT_EQ(ZEPO_Close(fd), 0);
    EXPECT_EQ(read_file(file).substr(0, 5), std::string("abcd") + '\0');
}

TEST(FilesFd, CloseAndCloseHandleCloseOnceThenFailWithEbadf) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_EQ(ZEPO_Close(fds[0]), 0);
    EXPECT_SERVICE_FAILS(ZEPO_Close(fds[0]), -1, EBADF);
    EXPECT_EQ(ZEPO_CloseHandle(fds[1]), 0);
    EXPECT_SERVICE_FAILS(ZEPO_CloseHandle(fds[1]), -1, EBADF);
}

TEST(FilesFd, IoctlFionreadCountsTheBytesWaitingInAPipe) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], "seven!!", 7), 7);
    int waiting = -1;
    EXPECT_EQ(
        ZEPO_Ioctl(fds[0], FIONREAD, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&waiting))),
        0);
    EXPECT_EQ(waiting, 7);
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(FilesFd, IoctlTakesARequestWithTheHighBitSet) {
    // TIOCGPTN does not fit a positive 32-bit number; the wrapper must still reach it.
    ASSERT_LT(static_cast<int32_t>(TIOCGPTN), 0);
    int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    unsigned int want = 0xFFFFFFFFu;
    ASSERT_EQ(::ioctl(master, TIOCGPTN, &want), 0);
    unsigned int got = 0xFFFFFFFFu;
    EXPECT_EQ(ZEPO_Ioctl(master, static_cast<int32_t>(TIOCGPTN),
                         static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&got))),
              0);
    EXPECT_EQ(got, want);
    ::close(master);
}

TEST(FilesFd, FcntlGetsAndSetsTheDescriptorFlags) {
    TempDir tmp;
    const std::string file = tmp / "f";
    int fd = ::open(file.c_str(), O_CREAT | O_RDWR | O_APPEND, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ZEPO_Fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(ZEPO_Fcntl(fd, F_SETFD, FD_CLOEXEC), 0);
    EXPECT_EQ(ZEPO_Fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(ZEPO_Fcntl(fd, F_SETFD, 0), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), 0);
    int fl = ZEPO_Fcntl(fd, F_GETFL);
    EXPECT_EQ(fl & O_ACCMODE, O_RDWR);
    EXPECT_NE(fl & O_APPEND, 0);
    EXPECT_EQ(ZEPO_Fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_APPEND, 0);
    ::close(fd);
}

TEST(FilesFd, FcntlDupfdGivesADescriptorAtOrAboveTheArgument) {
    TempDir tmp;
    const std::string file = tmp / "f";
    int fd = ::open(file.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    int dup = ZEPO_Fcntl(fd, F_DUPFD, static_cast<long>(200));
    ASSERT_GE(dup, 200);
    EXPECT_EQ(::fcntl(dup, F_GETFD), 0);  // F_DUPFD does not copy the close-on-exec flag
    struct stat a, b;
    ASSERT_EQ(::fstat(fd, &a), 0);
    ASSERT_EQ(::fstat(dup, &b), 0);
    EXPECT_EQ(a.st_ino, b.st_ino);
    int dup2nd = ZEPO_Fcntl(fd, F_DUPFD, static_cast<long>(200));
    EXPECT_GT(dup2nd, dup);
    ::close(dup2nd);
    ::close(dup);
    ::close(fd);
}

TEST(FilesFd, ReadLengthIsAnUnsigned32BitCount) {
    // 0x80000000 must reach read as 2 GiB, not as a negative count (which read refuses).
    // The buffer is static, low in the address space, so that the kernel's check of the
    // whole 2 GiB range stays inside user space (a stack buffer may sit too high).
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], "four", 4), 4);
    static char buf[16];
    EXPECT_EQ(ZEPO_Read(fds[0], buf, 0x80000000u), 4) << std::strerror(errno);
    EXPECT_EQ(std::string(buf, 4), "four");
    ::close(fds[0]);
    ::close(fds[1]);
}

// ==== Recursive directory creation
// ================================================================

TEST(FilesMkDirP, NullAndEmptyPathsGiveMinusOne) {
    EXPECT_REFUSED(ZEPO_MkDir_P(nullptr, 0755), -1);
    EXPECT_REFUSED(ZEPO_MkDir_P("", 0755), -1);
}

TEST(FilesMkDirP, SingleRelativeNameIsRefusedAndCreatesNothing) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_REFUSED(ZEPO_MkDir_P("abc", 0755), -1);
    EXPECT_FALSE(exists(tmp / "abc"));
    EXPECT_TRUE(names_in(tmp.path()).empty());
}

TEST(FilesMkDirP, BackslashRunPutsTheWalkBehindAndMakesARepeatedTailFolder) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("x\\\\\\yy/zzzz", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "x/yy"));
    EXPECT_TRUE(is_dir(tmp / "x/yy/y"));  // the walk restarted inside "yy"
}

TEST(FilesMkDirP, AbsolutePathWithABackslashRunMakesThePartThenGivesMinusOne) {
    TempDir tmp;
    // The walk falls behind by one separator, the prefix outgrows its buffer and the
    // append fails: -1, after "ab" was made.
    EXPECT_EQ(ZEPO_MkDir_P((tmp.path() + "/\\\\ab").c_str(), 0755), -1);
    EXPECT_TRUE(is_dir(tmp / "ab"));
}

TEST(FilesMkDirP, DotSlashNameCreatesTheNameAndGivesZero) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("./abc", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "abc"));
    EXPECT_EQ(names_in(tmp.path()), (std::set<std::string>{"abc"}));
}

TEST(FilesMkDirP, DotAndDotDotGiveZeroAndCreateNothing) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P(".", 0755), 0);
    EXPECT_EQ(ZEPO_MkDir_P("..", 0755), 0);
    EXPECT_TRUE(names_in(tmp.path()).empty());
}

TEST(FilesMkDirP, RootAloneGivesZero) { EXPECT_EQ(ZEPO_MkDir_P("/", 0755), 0); }

TEST(FilesMkDirP, AbsolutePathWithDoubledSlashesCreatesEveryPart) {
    TempDir tmp;
    const std::string path = tmp.path() + "//x//y";
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "x"));
    EXPECT_TRUE(is_dir(tmp / "x/y"));
    EXPECT_EQ(names_in(tmp.path()), (std::set<std::string>{"x"}));
    EXPECT_EQ(names_in(tmp / "x"), (std::set<std::string>{"y"}));
    EXPECT_TRUE(names_in(tmp / "x/y").empty());
}

TEST(FilesMkDirP, AbsolutePathCreatesEveryMissingPart) {
    TempDir tmp;
    const std::string path = tmp.path() + "/one/two";
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "one"));
    EXPECT_TRUE(is_dir(tmp / "one/two"));
}

TEST(FilesMkDirP, AbsolutePathReachesAOneCharacterLastPart) {
    TempDir tmp;
    const std::string path = tmp.path() + "/p/q";
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "p"));
    EXPECT_TRUE(is_dir(tmp / "p/q"));
}

TEST(FilesMkDirP, AbsolutePathWithTrailingSlashCreatesEveryPart) {
    TempDir tmp;
    const std::string path = tmp.path() + "/one/two/";
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "one"));
    EXPECT_TRUE(is_dir(tmp / "one/two"));
    EXPECT_TRUE(names_in(tmp / "one/two").empty());
}

TEST(FilesMkDirP, RelativePathWithTrailingSlashCreatesEveryPart) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("./d1/d2/", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "d1"));
    EXPECT_TRUE(is_dir(tmp / "d1/d2"));
}

TEST(FilesMkDirP, DeepAbsolutePathCreatesEveryLevel) {
    TempDir tmp;
    const std::string path = tmp.path() + "/l1/l2/l3/l4/l5/l6";
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    std::string level = tmp.path();
    for (const char *part : {"l1", "l2", "l3", "l4", "l5", "l6"}) {
        level += "/";
        level += part;
        EXPECT_TRUE(is_dir(level)) << level;
    }
    EXPECT_TRUE(names_in(level).empty());
}

TEST(FilesMkDirP, DeepRelativePathCreatesEveryLevel) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("./l1/l2/l3/l4/l5", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "l1/l2/l3/l4/l5"));
    EXPECT_TRUE(names_in(tmp / "l1/l2/l3/l4/l5").empty());
}

TEST(FilesMkDirP, RelativePathWithOneCharacterLastPartCreatesOnlyTheParent) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("a/b", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "a"));
    EXPECT_FALSE(exists(tmp / "a/b"));
    EXPECT_EQ(names_in(tmp.path()), (std::set<std::string>{"a"}));
}

TEST(FilesMkDirP, DeepRelativePathOfOneCharacterPartsStopsOnePartEarly) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("./a/b/c/d/e", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "a/b/c/d"));
    EXPECT_FALSE(exists(tmp / "a/b/c/d/e"));
}

TEST(FilesMkDirP, DoubledSlashInRelativePathAddsATrailingSlashSoTheLastPartIsMade) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("a//b", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "a"));
    EXPECT_TRUE(is_dir(tmp / "a/b"));
}

TEST(FilesMkDirP, BackslashSeparatesLikeASlash) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    EXPECT_EQ(ZEPO_MkDir_P("a\\bc", 0755), 0);
    EXPECT_TRUE(is_dir(tmp / "a"));
    EXPECT_TRUE(is_dir(tmp / "a/bc"));
    EXPECT_FALSE(exists(tmp / "a\\bc"));
    EXPECT_EQ(names_in(tmp.path()), (std::set<std::string>{"a"}));
}

TEST(FilesMkDirP, ExistingPathIsPassedOverAndGivesZero) {
    TempDir tmp;
    const std::string path = tmp.path() + "/one/two";
    ASSERT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    ASSERT_TRUE(write_file(tmp / "one/two/keep", "k"));
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    EXPECT_EQ(read_file(tmp / "one/two/keep"), "k");
}

TEST(FilesMkDirP, CreatedFoldersGetTheModeLessTheMask) {
    TempDir tmp;
    UmaskGuard mask(0);
    const std::string path = tmp.path() + "/m1/m2";
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0751), 0);
    EXPECT_EQ(perms_of(tmp / "m1"), 0751u);
    EXPECT_EQ(perms_of(tmp / "m1/m2"), 0751u);
}

TEST(FilesMkDirP, MiddlePartThatIsAFileStillGivesZero) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / "f", "plain"));
    const std::string path = tmp.path() + "/f/m/leaf";
    EXPECT_EQ(ZEPO_MkDir_P(path.c_str(), 0755), 0);
    EXPECT_TRUE(is_regular(tmp / "f"));
    EXPECT_EQ(read_file(tmp / "f"), "plain");
}

TEST(FilesMkDirP, MiddlePartWithoutPermissionStillGivesZero) {
    TempDir tmp;
    ASSERT_EQ(::chmod(tmp.c_str(), 0755), 0);
    const std::string ro = tmp / "ro";
    ASSERT_EQ(::mkdir(ro.c_str(), 0555), 0);
    ASSERT_EQ(::chmod(ro.c_str(), 0555), 0);
    const std::string path = ro + "/m/leaf";
    const uid_t nobody = 65534;
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(nobody) != 0 || ::setuid(nobody) != 0)
            ::_exit(10);
        // Without privileges the middle part really cannot be made.
        if (::mkdir((ro + "/probe").c_str(), 0755) == 0 || errno != EACCES) ::_exit(11);
        int32_t r = ZEPO_MkDir_P(path.c_str(), 0755);
        ::_exit(r == 0 ? 0 : (r == -1 ? 1 : 2));
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
    EXPECT_NE(WEXITSTATUS(status), 10) << "could not drop privileges";
    EXPECT_NE(WEXITSTATUS(status), 11) << "the folder was writable without privileges";
    EXPECT_NE(WEXITSTATUS(status), 1) << "ZEPO_MkDir_P gave -1";
    EXPECT_NE(WEXITSTATUS(status), 2) << "ZEPO_MkDir_P gave neither 0 nor -1";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(exists(ro + "/m"));
}

// ==== File copy =================================================================================

namespace {

void expect_copy_of_size(size_t n) {
    TempDir tmp;
    const std::string src = tmp / "src";
    const std::string dst = tmp / "dst";
    const std::string data = pattern_bytes(n, static_cast<unsigned>(n));
    ASSERT_TRUE(write_file(src, data));
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), dst.c_str()), 0);
    const std::string copy = read_file(dst);
    EXPECT_EQ(copy.size(), n);
    EXPECT_TRUE(copy == data) << "contents differ for " << n << " bytes";
    EXPECT_EQ(read_file(src), data);
}

}  // namespace

TEST(FilesCopy, CopiesAFileOfSeveralChunksByteForByte) { expect_copy_of_size(512 * 3 + 7); }

TEST(FilesCopy, CopiesAFileOfExactlyOneChunk) { expect_copy_of_size(512); }

TEST(FilesCopy, CopiesAFileOfExactlyTwoChunks) { expect_copy_of_size(1024); }

TEST(FilesCopy, CopiesAnEmptyFileAndALargeOne) {
    expect_copy_of_size(0);
    expect_copy_of_size(1 << 20);
}

TEST(FilesCopy, OntoAnExistingLongerFileTruncatesItFirst) {
    TempDir tmp;
    const std::string src = tmp / "src";
    const std::string dst = tmp / "dst";
    const std::string data = pattern_bytes(700, 3);
    ASSERT_TRUE(write_file(src, data));
    ASSERT_TRUE(write_file(dst, std::string(5000, 'Z')));
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(size_of(dst), 700);
    EXPECT_TRUE(read_file(dst) == data);
}

TEST(FilesCopy, CopyGetsTheSourcePermissionBitsLessTheMask) {
    TempDir tmp;
    UmaskGuard mask(022);
    const std::string src = tmp / "src";
    const std::string dst = tmp / "dst";
    ASSERT_TRUE(write_file(src, "abc"));
    ASSERT_EQ(::chmod(src.c_str(), 0764), 0);
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(perms_of(dst), 0744u);
    EXPECT_TRUE(is_regular(dst));
}

TEST(FilesCopy, CopyWithEmptyMaskKeepsTheSourceBitsExactly) {
    TempDir tmp;
    UmaskGuard mask(0);
    const std::string src = tmp / "src";
    const std::string dst = tmp / "dst";
    ASSERT_TRUE(write_file(src, "abc"));
    ASSERT_EQ(::chmod(src.c_str(), 0651), 0);
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(perms_of(dst), 0651u);
}

TEST(FilesCopy, MissingSourceGivesMinusOneAndCreatesNoDestination) {
    TempDir tmp;
    const std::string dst = tmp / "dst";
    EXPECT_EQ(ZEPO_CopyFile((tmp / "missing").c_str(), dst.c_str()), -1);
    EXPECT_FALSE(exists(dst));
}

TEST(FilesCopy, DestinationInAMissingFolderGivesMinusOne) {
    TempDir tmp;
    const std::string src = tmp / "src";
    ASSERT_TRUE(write_file(src, "abc"));
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), (tmp / "no/dst").c_str()), -1);
    EXPECT_FALSE(exists(tmp / "no"));
    EXPECT_EQ(read_file(src), "abc");
}

TEST(FilesCopy, NullAndEmptyPathsGiveMinusOne) {
    TempDir tmp;
    const std::string src = tmp / "src";
    const std::string dst = tmp / "dst";
    ASSERT_TRUE(write_file(src, "abc"));
    EXPECT_EQ(ZEPO_CopyFile(nullptr, dst.c_str()), -1);
    EXPECT_EQ(ZEPO_CopyFile("", dst.c_str()), -1);
    EXPECT_FALSE(exists(dst));
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), nullptr), -1);
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), ""), -1);
    EXPECT_EQ(names_in(tmp.path()), (std::set<std::string>{"src"}));
}

TEST(FilesCopy, WriteErrorAfterBothFilesAreOpenStillGivesZero) {
    TempDir tmp;
    const std::string src = tmp / "src";
    ASSERT_TRUE(write_file(src, std::string(2000, 'w')));
    // Every write to /dev/full fails with ENOSPC; the copy stops and still gives 0.
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), "/dev/full"), 0);
}

TEST(FilesCopy, SourceFolderOpensButFailsToReadAndStillGivesZero) {
    TempDir tmp;
    const std::string src = tmp / "dir";
    const std::string dst = tmp / "dst";
    ASSERT_EQ(::mkdir(src.c_str(), 0755), 0);
    EXPECT_EQ(ZEPO_CopyFile(src.c_str(), dst.c_str()), 0);
    EXPECT_TRUE(exists(dst));
    EXPECT_EQ(size_of(dst), 0);
}

// ==== Space of a file system through the mount table ============================================

namespace {

// Writes a mount table into the temporary folder and points the library at it.
class MountTable {
public:
    MountTable(const TempDir &tmp, const std::string &lines) : guard_("mtab") {
        ok_ = ::chdir(tmp.c_str()) == 0 && write_file(tmp / "mtab", lines);
    }
    bool ok() const { return ok_; }

private:
    MountTableGuard guard_;
    bool ok_ = false;
};

std::string entry(const std::string &fsname, const std::string &dir, const char *type = "ext4") {
    return fsname + " " + dir + " " + type + " rw 0 0\n";
}

// Totals of three distinct file systems, so that a result shows which entry was chosen.
bool distinct_file_systems(const TempDir &tmp) {
    Sizes ours, shm;
    if (!fs_sizes(tmp.c_str(), &ours) || !fs_sizes("/dev/shm", &shm)) return false;
    struct stat a, b;
    if (::stat(tmp.c_str(), &a) != 0 || ::stat("/dev/shm", &b) != 0) return false;
    return a.st_dev != b.st_dev && ours.total != shm.total && ours.total > 0 && shm.total > 0;
}

std::string parent_of(const std::string &path) { return path.substr(0, path.rfind('/')); }

}  // namespace

TEST(FilesSpace, MountTableNameDefaultsToProcMounts) {
    EXPECT_STREQ(g_mtab_mnt_file, "/proc/mounts");
}

TEST(FilesSpace, NullPathOrRecordGivesMinusOne) {
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_REFUSED(get_space_info(nullptr, &space), -1);
    EXPECT_REFUSED(get_space_info("/", nullptr), -1);
    expect_space_pattern(space);
}

TEST(FilesSpace, EmptyPathIsNotRefusedButFailsInStatWithEnoent) {
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_SERVICE_FAILS(get_space_info("", &space), -1, ENOENT);
    expect_space_pattern(space);
}

TEST(FilesSpace, MissingPathGivesMinusOne) {
    TempDir tmp;
    MountTable table(tmp, entry("none", "/") + entry("none", tmp.path()));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_EQ(get_space_info((tmp / "missing").c_str(), &space), -1);
}

TEST(FilesSpace, UnreadableMountTableGivesMinusOne) {
    TempDir tmp;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    MountTableGuard guard("no_such_tab");
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_EQ(get_space_info(tmp.c_str(), &space), -1);
}

TEST(FilesSpace, NoMatchingEntryGivesMinusOne) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    MountTable table(tmp, entry("none", "/proc", "proc") + entry("none", "/dev/shm", "tmpfs") +
                              entry("none", "/qel_no_such_mount_dir"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_EQ(get_space_info(tmp.c_str(), &space), -1);
}

TEST(FilesSpace, EmptyMountTableGivesMinusOne) {
    TempDir tmp;
    MountTable table(tmp, "");
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_EQ(get_space_info(tmp.c_str(), &space), -1);
}

TEST(FilesSpace, MountDirectoryMatchesItsEntryDirectly) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    MountTable table(tmp, entry("none", "/proc", "proc") + entry("none", "/dev/shm", "tmpfs"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        "/dev/shm", [&] { r = get_space_info("/dev/shm", &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, TempFolderListedAsMountDirectoryMatchesItsEntry) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    MountTable table(tmp, entry("none", "/dev/shm", "tmpfs") + entry("none", tmp.path()));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        tmp.c_str(), [&] { r = get_space_info(tmp.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, PathEqualToTheDeviceNameMatchesThatEntry) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    // The entry's device name is the temporary folder; its directory is another file system,
    // so the sizes show that this entry was taken.
    MountTable table(tmp, entry("none", "/proc", "proc") + entry(tmp.path(), "/dev/shm", "tmpfs"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        "/dev/shm", [&] { r = get_space_info(tmp.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, FilePathEqualToTheDeviceNameMatchesThatEntry) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    const std::string image = tmp / "disk.img";
    ASSERT_TRUE(write_file(image, "image"));
    MountTable table(tmp, entry(image, "/dev/shm", "tmpfs"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        "/dev/shm", [&] { r = get_space_info(image.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, DeviceNodeOfTheDeviceOfInterestMatchesThatEntry) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    ASSERT_EQ(::mkdir((tmp / "d1").c_str(), 0755), 0);
    const std::string file = tmp / "d1/f";
    ASSERT_TRUE(write_file(file, "x"));
    struct stat st;
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    const std::string node = tmp / "blk";
    ASSERT_EQ(::mknod(node.c_str(), S_IFBLK | 0600, st.st_dev), 0) << std::strerror(errno);
    MountTable table(tmp, entry("none", "/proc", "proc") + entry(node, "/dev/shm", "tmpfs"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        "/dev/shm", [&] { r = get_space_info(file.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, BlockDevicePathStandsForTheDeviceItRepresents) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    struct stat shm;
    ASSERT_EQ(::stat("/dev/shm", &shm), 0);
    // A block node (on our file system) that represents the device of /dev/shm.
    const std::string node = tmp / "blk";
    ASSERT_EQ(::mknod(node.c_str(), S_IFBLK | 0600, shm.st_dev), 0) << std::strerror(errno);
    MountTable table(tmp,
                     entry("none", parent_of(tmp.path())) + entry("none", "/dev/shm", "tmpfs"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        "/dev/shm", [&] { r = get_space_info(node.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, FileDeepInsideAFileSystemFindsItsMountThroughTheDeviceNumber) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    ASSERT_EQ(::mkdir((tmp / "d1").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((tmp / "d1/d2").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((tmp / "d1/d2/d3").c_str(), 0755), 0);
    const std::string file = tmp / "d1/d2/d3/deep.txt";
    ASSERT_TRUE(write_file(file, "deep"));
    const std::string parent = parent_of(tmp.path());
    struct stat p, f;
    ASSERT_EQ(::stat(parent.c_str(), &p), 0);
    ASSERT_EQ(::stat(file.c_str(), &f), 0);
    ASSERT_EQ(p.st_dev, f.st_dev);
    MountTable table(tmp, entry("none", "/proc", "proc") + entry("none", "/dev/shm", "tmpfs") +
                              entry("none", "/qel_no_such_mount_dir") + entry("none", parent));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        parent.c_str(), [&] { r = get_space_info(file.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, FirstMatchingEntryWinsOverALaterDirectMatch) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    // The first entry matches by device name, the second by mount directory.
    MountTable table(tmp, entry(tmp.path(), "/dev/shm", "tmpfs") + entry("none", tmp.path()));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        "/dev/shm", [&] { r = get_space_info(tmp.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, FirstMatchingEntryWinsOverALaterDeviceNameMatch) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    MountTable table(tmp, entry("none", tmp.path()) + entry(tmp.path(), "/dev/shm", "tmpfs"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        tmp.c_str(), [&] { r = get_space_info(tmp.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, FirstEntryOnTheDeviceWinsOverALaterDeviceNameMatch) {
    TempDir tmp;
    ASSERT_TRUE(distinct_file_systems(tmp));
    // The first entry matches only because its directory lies on the folder's device; the
    // second names the folder as its device.
    const std::string parent = parent_of(tmp.path());
    MountTable table(tmp, entry("none", parent) + entry(tmp.path(), "/dev/shm", "tmpfs"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    int32_t r = 99;
    Sizes want;
    ASSERT_TRUE(sample_around(
        parent.c_str(), [&] { r = get_space_info(tmp.c_str(), &space); }, &want));
    EXPECT_EQ(r, 0);
    expect_sizes(space, want);
}

TEST(FilesSpace, FileSystemOfZeroBlocksGivesThreeZeros) {
    TempDir tmp;
    MountTable table(tmp, entry("none", "/proc", "proc"));
    ASSERT_TRUE(table.ok());
    struct statfs s;
    ASSERT_EQ(::statfs("/proc", &s), 0);
    ASSERT_EQ(s.f_blocks, 0u);
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_EQ(get_space_info("/proc", &space), 0);
    EXPECT_EQ(space.total, 0.0);
    EXPECT_EQ(space.used, 0.0);
    EXPECT_EQ(space.available, 0.0);
}

TEST(FilesSpace, MatchedEntryWhoseDirectoryCannotBeQueriedGivesMinusOne) {
    TempDir tmp;
    MountTable table(tmp, entry(tmp.path(), "/qel_no_such_mount_dir"));
    ASSERT_TRUE(table.ok());
    ZEPO_SPACE_INFO space = space_pattern();
    EXPECT_EQ(get_space_info(tmp.c_str(), &space), -1);
}

TEST(FilesSpace, RealMountTableGivesTheSizesOfTheRootAndOfTheTempFolder) {
    TempDir tmp;
    ZEPO_SPACE_INFO root = space_pattern();
    ASSERT_EQ(get_space_info("/", &root), 0);
    EXPECT_GT(root.total, 0.0);
    EXPECT_GE(root.total, root.used);
    EXPECT_GE(root.total, root.available);
    ZEPO_SPACE_INFO ours = space_pattern();
    ASSERT_EQ(get_space_info(tmp.c_str(), &ours), 0);
    EXPECT_GT(ours.total, 0.0);
    EXPECT_GE(ours.total, ours.used);
    Sizes want;
    ASSERT_TRUE(fs_sizes(tmp.c_str(), &want));
    EXPECT_DOUBLE_EQ(ours.total, want.total);
}

// ==== Space of a file system queried directly
// ======================================================

TEST(FilesFreeSpace, SizesAreThoseOfStatfsOnThePath) {
    TempDir tmp;
    ZEPO_SPACE_INFO space = space_pattern();
    Sizes want;
    ASSERT_TRUE(sample_around(
        tmp.c_str(), [&] { ZEPO_GetFreeSpace(tmp.c_str(), &space); }, &want));
    expect_sizes(space, want);
    EXPECT_GT(space.total, 0.0);
}

TEST(FilesFreeSpace, SizesOfAnotherFileSystemAreItsOwn) {
    ZEPO_SPACE_INFO space = space_pattern();
    Sizes want;
    ASSERT_TRUE(sample_around(
        "/dev/shm", [&] { ZEPO_GetFreeSpace("/dev/shm", &space); }, &want));
    expect_sizes(space, want);
}

TEST(FilesFreeSpace, FileSystemOfZeroBlocksGivesThreeZeros) {
    ZEPO_SPACE_INFO space = space_pattern();
    ZEPO_GetFreeSpace("/proc", &space);
    EXPECT_EQ(space.total, 0.0);
    EXPECT_EQ(space.used, 0.0);
    EXPECT_EQ(space.available, 0.0);
}

TEST(FilesFreeSpace, MissingPathLeavesTheRecordUntouched) {
    TempDir tmp;
    ZEPO_SPACE_INFO space = space_pattern();
    ZEPO_GetFreeSpace((tmp / "missing").c_str(), &space);
    expect_space_pattern(space);
}

TEST(FilesFreeSpace, NullPathGoesToStatfsAndLeavesTheRecord) {
    ZEPO_SPACE_INFO space = space_pattern();
    errno = 0;
    ZEPO_GetFreeSpace(nullptr, &space);
    EXPECT_EQ(errno, EFAULT);
    expect_space_pattern(space);
}

TEST(FilesFreeSpace, NullRecordIsRefusedWithoutTouchingErrno) {
    TempDir tmp;
    EXPECT_VOID_REFUSED(ZEPO_GetFreeSpace(tmp.c_str(), nullptr));
}

TEST(FilesFreeSpace, NullRecordDoesNotCrash) {
    TempDir tmp;
    ZEPO_GetFreeSpace(tmp.c_str(), nullptr);
    ZEPO_SPACE_INFO space = space_pattern();
    ZEPO_GetFreeSpace(tmp.c_str(), &space);  // the process is still usable afterwards
    EXPECT_GT(space.total, 0.0);
}

// ==== Canonical paths ===========================================================================

namespace {

std::string real_of(const std::string &path) {
    char *r = ::realpath(path.c_str(), nullptr);
    std::string s = r ? r : "";
    ::free(r);
    return s;
}

}  // namespace

TEST(FilesRelPath, ResolvesDotDotDotAndALinkIntoAnAbsolutePath) {
    TempDir tmp;
    ASSERT_EQ(::mkdir((tmp / "real").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((tmp / "other").c_str(), 0755), 0);
    ASSERT_TRUE(write_file(tmp / "real/target", "t"));
    ASSERT_EQ(::symlink("real", (tmp / "link").c_str()), 0);
    const std::string base = real_of(tmp.path());
    ASSERT_FALSE(base.empty());
    const std::string want = base + "/real/target";
    const std::string path = tmp.path() + "/other/../link/./target";
    char out[4097];
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(ZEPO_RelPath(path.c_str(), out, static_cast<int32_t>(sizeof out)), 0);
    EXPECT_EQ(std::string(out), want);
}

TEST(FilesRelPath, RelativePathBecomesAbsolute) {
    TempDir tmp;
    ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0755), 0);
    ASSERT_EQ(::chdir((tmp / "sub").c_str()), 0);
    const std::string want = real_of(tmp.path());
    char out[4097];
    EXPECT_EQ(ZEPO_RelPath("..", out, static_cast<int32_t>(sizeof out)), 0);
    EXPECT_EQ(std::string(out), want);
    EXPECT_EQ(ZEPO_RelPath(".", out, static_cast<int32_t>(sizeof out)), 0);
    EXPECT_EQ(std::string(out), want + "/sub");
}

TEST(FilesRelPath, NullPathGivesOneWithoutTouchingErrno) {
    char out[64];
    EXPECT_REFUSED(ZEPO_RelPath(nullptr, out, sizeof out), 1);
}

TEST(FilesRelPath, EmptyPathIsNotRefusedButFailsInRealpathWithEnoent) {
    char out[64];
    EXPECT_SERVICE_FAILS(ZEPO_RelPath("", out, sizeof out), 1, ENOENT);
}

TEST(FilesRelPath, OutlenEqualToTheResolvedLengthGivesOneAndAnEmptyOut) {
    TempDir tmp;
    const std::string want = real_of(tmp.path());
    const int32_t n = static_cast<int32_t>(want.size());
    std::vector<char> out(want.size() + 8, 'X');
    EXPECT_EQ(ZEPO_RelPath(tmp.c_str(), out.data(), n), 1);
    EXPECT_EQ(out[0], '\0');
}

TEST(FilesRelPath, OutlenOneAboveTheResolvedLengthGivesZero) {
    TempDir tmp;
    const std::string want = real_of(tmp.path());
    const int32_t n = static_cast<int32_t>(want.size());
    std::vector<char> out(want.size() + 8, 'X');
    EXPECT_EQ(ZEPO_RelPath(tmp.c_str(), out.data(), n + 1), 0);
    EXPECT_EQ(std::string(out.data()), want);
}

TEST(FilesRelPath, OutlenBelowTheResolvedLengthGivesOneWithoutCopying) {
    TempDir tmp;
    std::vector<char> out(16, 'X');
    EXPECT_EQ(ZEPO_RelPath(tmp.c_str(), out.data(), 5), 1);
    EXPECT_EQ(out[0], 'X');
}

TEST(FilesRelPath, NegativeOutlenGivesOne) {
    TempDir tmp;
    std::vector<char> out(4097, 'X');
    EXPECT_EQ(ZEPO_RelPath(tmp.c_str(), out.data(), -1), 1);
    EXPECT_EQ(out[0], 'X');
    EXPECT_EQ(ZEPO_RelPath(tmp.c_str(), out.data(), INT32_MIN), 1);
    EXPECT_EQ(out[0], 'X');
}

TEST(FilesRelPath, NullPathGivesOne) {
    char out[64];
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(ZEPO_RelPath(nullptr, out, static_cast<int32_t>(sizeof out)), 1);
    EXPECT_EQ(out[0], 'X');
}

TEST(FilesRelPath, MissingPathGivesOne) {
    TempDir tmp;
    char out[4097];
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(ZEPO_RelPath((tmp / "missing").c_str(), out, static_cast<int32_t>(sizeof out)), 1);
    EXPECT_EQ(ZEPO_RelPath((tmp / "missing/../x").c_str(), out, static_cast<int32_t>(sizeof out)),
              1);
}

TEST(FilesRelPath, NullOutGivesOne) {
    TempDir tmp;
    EXPECT_EQ(ZEPO_RelPath(tmp.c_str(), nullptr, 4097), 1);
}

// ==== Release of a directory-entry list ==========================================================

TEST(FilesNameList, NullListIsIgnored) {
    errno = kSentinel;
    ZEPO_DestoryNameList(nullptr, 0);
    ZEPO_DestoryNameList(nullptr, 5);
    EXPECT_EQ(errno, kSentinel);
}

TEST(FilesNameList, ListOfScanDirIsReleasedWholly) {
    // Under the address sanitizer a leaked entry or a bad release fails this test.
    TempDir tmp;
    for (const char *name : {"n1", "n2", "n3"}) ASSERT_TRUE(write_file(tmp / name, ""));
    struct dirent **list = nullptr;
    int n = ZEPO_ScanDir(tmp.c_str(), &list, nullptr, ZEPO_Alphasort);
    ASSERT_EQ(n, 5);
    ASSERT_NE(list, nullptr);
    ZEPO_DestoryNameList(list, static_cast<uint32_t>(n));
}

TEST(FilesNameList, EmptyListOfScanDirIsReleased) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp / ".hidden", ""));
    struct dirent **list = nullptr;
    int n = ZEPO_ScanDir(tmp.c_str(), &list, skip_dots, nullptr);
    ASSERT_EQ(n, 0);
    ZEPO_DestoryNameList(list, 0);
}

TEST(FilesNameList, SmallerCountReleasesOnlyThatManyEntriesAndTheArray) {
    // The entries past the count stay with the caller: releasing them here must be neither a
    // double release nor a leak (the address sanitizer checks both; without it the C library
    // aborts on a double release of these small blocks).
    TempDir tmp;
    for (const char *name : {"n1", "n2", "n3", "n4"}) ASSERT_TRUE(write_file(tmp / name, ""));
    struct dirent **list = nullptr;
    int n = ZEPO_ScanDir(tmp.c_str(), &list, skip_dots, ZEPO_Alphasort);
    ASSERT_EQ(n, 4);
    std::vector<struct dirent *> rest(list + 2, list + n);
    EXPECT_STREQ(rest[0]->d_name, "n3");
    EXPECT_STREQ(rest[1]->d_name, "n4");
    ZEPO_DestoryNameList(list, 2);
    // The entries past the count are still readable and ours to release.
    EXPECT_STREQ(rest[0]->d_name, "n3");
    EXPECT_STREQ(rest[1]->d_name, "n4");
    for (struct dirent *e : rest) ::free(e);
}

TEST(FilesNameList, ZeroCountReleasesOnlyTheArray) {
    TempDir tmp;
    for (const char *name : {"n1", "n2"}) ASSERT_TRUE(write_file(tmp / name, ""));
    struct dirent **list = nullptr;
    int n = ZEPO_ScanDir(tmp.c_str(), &list, skip_dots, ZEPO_Alphasort);
    ASSERT_EQ(n, 2);
    std::vector<struct dirent *> rest(list, list + n);
    ZEPO_DestoryNameList(list, 0);
    EXPECT_STREQ(rest[0]->d_name, "n1");
    EXPECT_STREQ(rest[1]->d_name, "n2");
    for (struct dirent *e : rest) ::free(e);
}
