// os_fil_config.cpp - last error, error text, printing and the failure trace; the file,
// stream, directory and descriptor wrappers; the file utilities.

#include <fcntl.h>
#include <mntent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os_frame.h"
#include "qel_bounds.h"
#include "qel_file.h"
#include "qel_text.h"

static_assert(sizeof(ZEPO_STAT) == 72);
static_assert(offsetof(ZEPO_STAT, device) == 0);
static_assert(offsetof(ZEPO_STAT, inode) == 8);
static_assert(offsetof(ZEPO_STAT, mode) == 16);
static_assert(offsetof(ZEPO_STAT, linkCount) == 20);
static_assert(offsetof(ZEPO_STAT, owner) == 24);
static_assert(offsetof(ZEPO_STAT, group) == 32);
static_assert(offsetof(ZEPO_STAT, size) == 40);
static_assert(offsetof(ZEPO_STAT, accessTime) == 48);
static_assert(offsetof(ZEPO_STAT, modifyTime) == 56);
static_assert(offsetof(ZEPO_STAT, changeTime) == 64);
static_assert(sizeof(ZEPO_SPACE_INFO) == 24);
static_assert(offsetof(ZEPO_SPACE_INFO, used) == 8);
static_assert(offsetof(ZEPO_SPACE_INFO, available) == 16);

// The C library's fortified formatter and its XSI strerror_r.  Neither is declared by the
// headers in a C++ build: g++ defines _GNU_SOURCE, which selects the GNU strerror_r, and
// __vfprintf_chk is only declared under _FORTIFY_SOURCE.
extern "C" int __vfprintf_chk(FILE *stream, int flag, const char *format, va_list ap);
extern "C" int __xpg_strerror_r(int errnum, char *buf, size_t buflen);

namespace {

// Check level of the fortified formatter, as a _FORTIFY_SOURCE build of the application's
// own printf would use: among its checks, a %n in a format held in writable memory ends
// the process ("*** %n in writable segment detected ***").
constexpr int kFortifyLevel = 1;

// ZEPO_GetFileSize refuses sizes above this one on purpose: one below the largest
// unsigned 32-bit value.
constexpr int64_t kLargestFileSize = 4294967294LL;

// ZEPO_CopyFile moves the file in chunks of this size through a stack buffer.
constexpr uint32_t kCopyChunk = 512;

// ZEPO_RelPath resolves into a buffer of PATH_MAX + 1 bytes.
constexpr uint32_t kResolvedSize = 4097;

// statfs as a plain function: ZEPO_GetFreeSpace passes its path unchecked (a null one
// fails with EFAULT), which the C library's non-null declaration would not allow.
int (*const unchecked_statfs)(const char *, struct statfs *) = statfs;

// Buffer for one line of the mount table; option lists of overlay mounts run long.
constexpr uint32_t kMountLineSize = 16384;

// Carries the fields of a status into the library's record: the whole record is
// cleared first (the clear's result is not tested), then each field is stored.
void store_status(const struct stat &status, ZEPO_STAT *record) {
    (void)memset_s(record, sizeof *record, 0, sizeof *record);
    record->device = status.st_dev;
    record->inode = status.st_ino;
    record->mode = status.st_mode;
    record->linkCount = static_cast<uint32_t>(status.st_nlink);
    record->owner = status.st_uid;
    record->group = status.st_gid;
    record->size = status.st_size;
    record->accessTime = status.st_atim.tv_sec;
    record->modifyTime = status.st_mtim.tv_sec;
    record->changeTime = status.st_ctim.tv_sec;
}

// The three sizes of a file system; one of 0 blocks is reported as all zeros.
void store_space(const struct statfs &fs, ZEPO_SPACE_INFO *space) {
    if (fs.f_blocks == 0) {
        space->total = space->used = space->available = 0.0;
        return;
    }
    const double block = static_cast<double>(fs.f_bsize);
    space->total = static_cast<double>(fs.f_blocks) * block;
    space->used = static_cast<double>(fs.f_blocks - fs.f_bfree) * block;
    space->available = static_cast<double>(fs.f_bavail) * block;
}

// Whether a mount-table entry holds path, tested in this order: path is the mount
// directory; path is the device name; the device name is a node of the device of
// interest; the mount directory lies on the device of interest.
bool mount_holds(const struct mntent &entry, const char *path, dev_t device) {
    struct stat status;
    return strcmp(path, entry.mnt_dir) == 0 || strcmp(path, entry.mnt_fsname) == 0 ||
           (stat(entry.mnt_fsname, &status) == 0 && status.st_rdev == device) ||
           (stat(entry.mnt_dir, &status) == 0 && status.st_dev == device);
}

// Writes a whole chunk, retrying interrupted writes and advancing over short ones.
// Returns false when a write fails for good; a write of 0 bytes abandons the rest of
// the chunk (the copy goes on, silently short).
bool write_chunk(int32_t fd, const char *chunk, int64_t length) {
    int64_t done = 0;
    while (done < length) {
        const int64_t written = ZEPO_Write(fd, chunk + done, static_cast<uint32_t>(length - done));
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (written == 0) return true;
        done += written;
    }
    return true;
}

// The sort orders of directory entries.  The unequal refusals keep a sort that meets
// null entries ordered: a null first entry sorts before, a null second one after.
int32_t compare_entries(int (*order)(const struct dirent **, const struct dirent **),
                        const struct dirent **e1, const struct dirent **e2) {
    if (!qel::accepted(e1)) return -1;
    if (!qel::accepted(e2)) return 1;
    return order(e1, e2);
}

// The normalised form of a path for ZEPO_MkDir_P, in a block of its own length + 1, or
// null when the path is a single relative name (refused on purpose) or a copy or an
// allocation fails.  With "//" in the path every part is appended with one slash after
// it, so repeated slashes collapse, a leading slash is dropped and the text ends in a
// slash; otherwise the path is taken unchanged.  The working buffers are released here.
char *normalised_path(const char *path, uint32_t length) {
    qel::HeapPtr<char> work(static_cast<char *>(qel::heap_alloc(length + 1)));
    if (!work || strncpy_s(work.get(), length + 1, path, length) != EOK) return nullptr;
    const uint32_t joinedSize = length + 2;
    qel::HeapPtr<char> joined(static_cast<char *>(qel::heap_zalloc(joinedSize)));
    if (!joined) return nullptr;
    if (strchr(path, '/') == nullptr && strchr(path, '\\') == nullptr) return nullptr;

    if (strstr(path, "//") != nullptr) {
        char *context = nullptr;
        for (char *part = strtok_s(work.get(), "/", &context); part != nullptr;
             part = strtok_s(nullptr, "/", &context)) {
            if (strncat_s(joined.get(), joinedSize, part, strlen(part)) != EOK ||
                strncat_s(joined.get(), joinedSize, "/", 1) != EOK) {
                return nullptr;
            }
        }
    } else if (strncpy_s(joined.get(), joinedSize, path, length) != EOK) {
        return nullptr;
    }

    const uint32_t normalLength = ZEPO_StrLen(joined.get());
    qel::HeapPtr<char> text(static_cast<char *>(qel::heap_alloc(normalLength + 1)));
    if (!text || strncpy_s(text.get(), normalLength + 1, joined.get(), normalLength) != EOK) {
        return nullptr;
    }
    return text.release();
}

// Ends the reading of a mount table when the scope ends.
class MountTable {
public:
    explicit MountTable(const char *name) : table_(setmntent(name, "r")) {}
    ~MountTable() {
        if (table_ != nullptr) endmntent(table_);
    }
    MountTable(const MountTable &) = delete;
    MountTable &operator=(const MountTable &) = delete;
    FILE *get() const { return table_; }

private:
    FILE *table_;
};

}  // namespace

namespace qel {

int traced(int status, Where where) {
    if (status != 0) {
        ZEPO_Printf("Operate fail[%d]: File: %s Line: %d \n", status, where.file_name(),
                    static_cast<int>(where.line()));
    }
    return status;
}

}  // namespace qel

extern "C" {

uint32_t ZEPO_GetLastErr(void) { return static_cast<uint32_t>(errno); }

void ZEPO_SetLastErr(int32_t err) { errno = err; }

uint32_t ZEPO_GetLastSocketErr(void) { return static_cast<uint32_t>(errno); }

int32_t ZEPO_StrError_S(char *buf, uint32_t buflen, uint32_t errnum) {
    // Deliberately unchecked: a null buffer is strerror_r's to judge.
    return __xpg_strerror_r(static_cast<int>(errnum), buf, buflen);
}

int32_t ZEPO_Printf(const char *format, ...) {
    // Only a null format is refused; an empty one prints nothing and gives 0.
    if (!qel::accepted(format)) return qel::kRefused;
    qel::VaList args;
    va_start(args.ap, format);
    return __vfprintf_chk(stdout, kFortifyLevel, format, args.ap);
}

int32_t ZEPO_Fprintf(FILE *stream, const char *format, ...) {
    if (!qel::accepted(stream, qel::text(format))) return qel::kRefused;
    qel::VaList args;
    va_start(args.ap, format);
    return __vfprintf_chk(stream, kFortifyLevel, format, args.ap);
}

// ---- Directories --------------------------------------------------------------------

// Only a null path is refused: opendir judges an empty one.
DIR *ZEPO_OpenDir(const char *path) {
    if (!qel::accepted(path)) return nullptr;
    return opendir(path);
}

int32_t ZEPO_CloseDir(DIR *dir) {
    if (!qel::accepted(dir)) return qel::kRefused;
    return closedir(dir);
}

struct dirent *ZEPO_ReadDir(DIR *dir) {
    if (!qel::accepted(dir)) return nullptr;
    return readdir(dir);
}

int32_t ZEPO_ReadDir_S(DIR *dir, uint32_t /*size: accepted and ignored*/, struct dirent **out) {
    // out is not checked: callers pass a valid place.  0 says a read was made; the end
    // of the directory is a stored null.
    if (!qel::accepted(dir)) return qel::kRefused;
    *out = ZEPO_ReadDir(dir);
    return 0;
}

int32_t ZEPO_DirFd(DIR *dir) {
    if (!qel::accepted(dir)) return qel::kRefused;
    return dirfd(dir);
}

void ZEPO_RewindDir(DIR *dir) {
    if (!qel::accepted(dir)) return;
    rewinddir(dir);
}

void ZEPO_SeekDir(DIR *dir, int32_t pos) {
    if (!qel::accepted(dir)) return;
    seekdir(dir, pos);
}

int64_t ZEPO_TellDir(DIR *dir) {
    if (!qel::accepted(dir)) return qel::kRefused64;
    return telldir(dir);
}

int32_t ZEPO_ScanDir(const char *dir, struct dirent ***namelist,
                     int (*filter)(const struct dirent *),
                     int (*compare)(const struct dirent **, const struct dirent **)) {
    if (!qel::accepted(dir, namelist)) return qel::kRefused;
    return scandir(dir, namelist, filter, compare);
}

int32_t ZEPO_Alphasort(const struct dirent **e1, const struct dirent **e2) {
    return compare_entries(alphasort, e1, e2);
}

int32_t ZEPO_Versionsort(const struct dirent **e1, const struct dirent **e2) {
    return compare_entries(versionsort, e1, e2);
}

int32_t ZEPO_RmDir(const char *path) {
    if (!qel::accepted(qel::text(path))) return qel::kRefused;
    return rmdir(path);
}

int32_t ZEPO_ChDir(const char *path) {
    if (!qel::accepted(qel::text(path))) return qel::kRefused;
    return chdir(path);
}

char *ZEPO_GetCwd(char *buf, int32_t size) {
    if (!qel::accepted(buf)) return nullptr;
    return getcwd(buf, static_cast<size_t>(size));
}

int32_t ZEPO_MkDir(const char *path, uint32_t mode) {
    if (!qel::accepted(qel::text(path))) return qel::kRefused;
    return mkdir(path, mode);
}

// ---- Paths and names ------------------------------------------------------------------

int32_t ZEPO_Access(const char *name, int32_t mode) {
    if (!qel::accepted(qel::text(name))) return qel::kRefused;
    return access(name, mode);
}

int32_t ZEPO_Remove(const char *path) {
    if (!qel::accepted(qel::text(path))) return qel::kRefused;
    return remove(path);
}

int32_t ZEPO_Rename(const char *oldPath, const char *newPath) {
    if (!qel::accepted(qel::text(oldPath), qel::text(newPath))) return qel::kRefused;
    return rename(oldPath, newPath);
}

// An empty path is not refused here: stat reports it.
int32_t ZEPO_Stat(const char *path, ZEPO_STAT *record) {
    if (!qel::accepted(path, record)) return qel::kRefused;
    struct stat status;
    const int result = stat(path, &status);
    if (result != 0) return result;  // the record stays as it was
    store_status(status, record);
    return 0;
}

int32_t ZEPO_FStat(int32_t fd, ZEPO_STAT *record) {
    if (!qel::accepted(record)) return qel::kRefused;
    struct stat status;
    const int result = fstat(fd, &status);
    if (result != 0) return result;
    store_status(status, record);
    return 0;
}

int32_t ZEPO_GetFileSize(const char *path, uint32_t *size) {
    if (!qel::accepted(qel::text(path), size)) return qel::kRefused;
    ZEPO_STAT status;
    if (ZEPO_Stat(path, &status) != 0) return 1;
    if (status.size > kLargestFileSize) return 1;
    *size = static_cast<uint32_t>(status.size);
    return 0;
}

// ---- Streams --------------------------------------------------------------------------

FILE *ZEPO_Fopen(const char *path, const char *mode) {
    if (!qel::accepted(qel::text(path), qel::text(mode))) return nullptr;
    return fopen(path, mode);
}

FILE *ZEPO_Fsopen(const char *path, const char *mode) { return ZEPO_Fopen(path, mode); }

int32_t ZEPO_Fflush(FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return fflush(stream);
}

int32_t ZEPO_Fclose(FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return fclose(stream);
}

FILE *ZEPO_TmpFile(void) { return tmpfile(); }

int32_t ZEPO_Fgetc(FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return fgetc(stream);
}

int32_t ZEPO_Fputc(int32_t ch, FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return fputc(ch, stream);
}

char *ZEPO_Fgets(char *buf, int32_t n, FILE *stream) {
    if (!qel::accepted(buf, stream)) return nullptr;
    return fgets(buf, n, stream);
}

// Only a null text is refused: an empty one is written, as nothing.
int32_t ZEPO_Fputs(const char *str, FILE *stream) {
    if (!qel::accepted(str, stream)) return qel::kRefused;
    return fputs(str, stream);
}

uint32_t ZEPO_Fread(void *buf, uint32_t size, uint32_t n, FILE *stream) {
    if (!qel::accepted(stream, buf)) return qel::kRefusedMoved;
    return static_cast<uint32_t>(fread(buf, size, n, stream));
}

uint32_t ZEPO_Fwrite(const void *buf, uint32_t size, uint32_t n, FILE *stream) {
    if (!qel::accepted(buf, stream)) return qel::kRefusedMoved;
    return static_cast<uint32_t>(fwrite(buf, size, n, stream));
}

int32_t ZEPO_Fseek(FILE *stream, int32_t offset, int32_t whence) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return fseek(stream, offset, whence);
}

int64_t ZEPO_Ftell(FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused64;
    return ftell(stream);
}

void ZEPO_Rewind(FILE *stream) {
    if (!qel::accepted(stream)) return;
    rewind(stream);
}

int32_t ZEPO_Fgetpos(FILE *stream, fpos_t *pos) {
    if (!qel::accepted(stream, pos)) return qel::kRefused;
    return fgetpos(stream, pos);
}

int32_t ZEPO_Fsetpos(FILE *stream, const fpos_t *pos) {
    if (!qel::accepted(stream, pos)) return qel::kRefused;
    return fsetpos(stream, pos);
}

void ZEPO_Clearerr(FILE *stream) {
    if (!qel::accepted(stream)) return;
    clearerr(stream);
}

int32_t ZEPO_Feof(FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return feof(stream);
}

int32_t ZEPO_Ferror(FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return ferror(stream);
}

int32_t ZEPO_Fileno(FILE *stream) {
    if (!qel::accepted(stream)) return qel::kRefused;
    return fileno(stream);
}

// ---- Descriptors ----------------------------------------------------------------------

// The mode goes to open whatever the flags say.
int32_t ZEPO_Open(const char *path, int32_t flags, uint32_t mode) {
    if (!qel::accepted(qel::text(path))) return qel::kRefused;
    return open(path, flags, mode);
}

int32_t ZEPO_Creat(const char *path, uint32_t mode) {
    if (!qel::accepted(qel::text(path))) return qel::kRefused;
    return creat(path, mode);
}

int64_t ZEPO_Read(int32_t fd, void *buf, uint32_t len) {
    if (!qel::accepted(buf)) return qel::kRefused64;
    return read(fd, buf, len);
}

int64_t ZEPO_Write(int32_t fd, const void *buf, uint32_t len) {
    if (!qel::accepted(buf)) return qel::kRefused64;
    return write(fd, buf, len);
}

int32_t ZEPO_Close(int32_t fd) { return close(fd); }

int32_t ZEPO_CloseHandle(int32_t fd) { return ZEPO_Close(fd); }

// Offsets are signed 32-bit in the interface and sign-extended: no reach beyond 2 GiB.
int64_t ZEPO_LSeek(int32_t fd, int32_t offset, int32_t whence) { return lseek(fd, offset, whence); }

int32_t ZEPO_Ftruncate(int32_t fd, int32_t length) { return ftruncate(fd, length); }

int32_t ZEPO_Ioctl(int32_t fd, int32_t request, uint64_t arg) {
    // The request is sign-extended to the service's unsigned long.
    return ioctl(fd, static_cast<unsigned long>(static_cast<long>(request)), arg);
}

int32_t ZEPO_Fcntl(int32_t fd, int32_t cmd, ...) {
    // One optional integer follows the command.  F_DUPFD (0) passes the argument word
    // as it stands; every other command reads it as a signed 32-bit integer and
    // sign-extends it.  Pointer arguments (locks) cannot be forwarded faithfully.
    qel::VaList args;
    va_start(args.ap, cmd);
    if (cmd == F_DUPFD) return fcntl(fd, cmd, va_arg(args.ap, long));
    return fcntl(fd, cmd, static_cast<long>(va_arg(args.ap, int)));
}

// ---- File utilities -------------------------------------------------------------------

char g_mtab_mnt_file[13] = "/proc/mounts";

int32_t ZEPO_MkDir_P(const char *path, uint32_t mode) {
    const uint32_t length = ZEPO_StrLen(path);
    if (length == 0) return qel::kRefused;
    if (strcmp(path, ".") == 0 || strcmp(path, "..") == 0) return 0;

    qel::HeapPtr<char> text(normalised_path(path, length));
    if (!text) return qel::kRefused;
    const uint32_t textLength = ZEPO_StrLen(text.get());
    const bool absolute = path[0] == '/';

    // The prefix under construction, and a scratch copy of the text for strtok_s.
    const uint32_t prefixSize = textLength + 2;
    qel::HeapPtr<char> prefix(static_cast<char *>(qel::heap_zalloc(prefixSize)));
    qel::HeapPtr<char> scratch(static_cast<char *>(qel::heap_zalloc(textLength + 1)));
    if (!prefix || !scratch) return qel::kRefused;
    if (absolute) prefix.get()[0] = '/';

    // offset: where the next part starts in the text.
    uint32_t offset = 0;
    for (;;) {
        if (strncpy_s(scratch.get(), textLength + 1, text.get(), textLength) != EOK) {
            return qel::kRefused;
        }
        char *context = nullptr;
        const char *part = strtok_s(scratch.get() + offset, "/\\", &context);
        if (part == nullptr) return 0;
        if (strcat_s(prefix.get(), prefixSize, part) != EOK ||
            strcat_s(prefix.get(), prefixSize, "/") != EOK) {
            return qel::kRefused;
        }
        offset = ZEPO_StrLen(prefix.get()) - (absolute ? 1 : 0);
        // Creation failures are not reported: an existing directory is passed over, and
        // so is any other failure; only malformed input and resources give -1.
        (void)ZEPO_MkDir(prefix.get(), mode);
        // The last part is made when the offset reaches the text's end, give or take
        // one.  For a relative path ending in a one-character part the L - 1 test fires
        // one part early ("a/b" makes only "a/"); callers rely on that.
        if (offset == textLength || offset + 1 == textLength || offset == textLength + 1) {
            return 0;
        }
    }
}

int32_t ZEPO_CopyFile(const char *src, const char *dst) {
    qel::Descriptor source(ZEPO_Open(src, O_RDONLY, 0));
    if (!source.valid()) return qel::kRefused;
    ZEPO_STAT status;
    if (ZEPO_Stat(src, &status) != 0) return qel::kRefused;
    qel::Descriptor target(ZEPO_Open(dst, O_RDWR | O_CREAT | O_TRUNC, status.mode));
    if (!target.valid()) return qel::kRefused;

    char chunk[kCopyChunk];
    for (;;) {
        const int64_t got = ZEPO_Read(source.get(), chunk, sizeof chunk);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (!write_chunk(target.get(), chunk, got)) break;
    }
    // Once both files are open the result is 0, even after a read or write error.
    return 0;
}

int32_t get_space_info(const char *path, ZEPO_SPACE_INFO *space) {
    if (!qel::accepted(path, space)) return qel::kRefused;
    struct stat status;
    if (stat(path, &status) != 0) return qel::kRefused;
    // A block device path asks for the device it represents.
    const dev_t device = S_ISBLK(status.st_mode) ? status.st_rdev : status.st_dev;

    qel::HeapPtr<char> line(static_cast<char *>(qel::heap_alloc(kMountLineSize)));
    if (!line) return qel::kRefused;
    struct mntent entry;
    const char *directory = nullptr;  // points into line, which outlives the table
    {
        MountTable table(g_mtab_mnt_file);
        if (table.get() == nullptr) return qel::kRefused;
        while (directory == nullptr &&
               getmntent_r(table.get(), &entry, line.get(), kMountLineSize) != nullptr) {
            if (mount_holds(entry, path, device)) directory = entry.mnt_dir;
        }
    }
    if (directory == nullptr) return qel::kRefused;

    struct statfs fs;
    if (statfs(directory, &fs) != 0) return qel::kRefused;
    store_space(fs, space);
    return 0;
}

void ZEPO_GetFreeSpace(const char *path, ZEPO_SPACE_INFO *space) {
    // The path is deliberately not checked: statfs judges it.
    if (!qel::accepted(space)) return;
    struct statfs fs;
    if (unchecked_statfs(path, &fs) != 0) return;  // the record stays as it was
    store_space(fs, space);
}

int32_t ZEPO_RelPath(const char *path, char *out, int32_t outlen) {
    if (!qel::accepted(path)) return 1;
    qel::HeapPtr<char> resolved(static_cast<char *>(qel::heap_alloc(kResolvedSize)));
    if (!resolved || realpath(path, resolved.get()) == nullptr) return 1;
    const uint32_t length = ZEPO_StrLen(resolved.get());
    // outlen equal to the length passes this test but leaves no room for the
    // terminator, so the copy then fails: callers pass at least length + 1.
    if (static_cast<int64_t>(outlen) < static_cast<int64_t>(length)) return 1;
    return strncpy_s(out, static_cast<size_t>(outlen), resolved.get(), length) == EOK ? 0 : 1;
}

void ZEPO_DestoryNameList(struct dirent **list, uint32_t count) {
    // The entries come from the C library's scandir, not from the entry points: they
    // are released through ZEPO_MemTypeFreeD all the same, which hands them on.
    if (list == nullptr) return;
    for (uint32_t i = 0; i < count; ++i) {
        qel::heap_free(list[i]);
        list[i] = nullptr;
    }
    qel::heap_free(list);
}

}  // extern "C"

// ---- UTF-8 codec ----------------------------------------------------------------------

namespace {

// One form of the first UTF-8 definition (RFC 2279): a lead byte at or above `from`
// starts `bytes` bytes and gives the bits of `lead` to the code point, most significant
// first.  The 6-byte form takes bit 0 only: code points have 31 bits there.
struct Utf8Form {
    uint8_t from;
    uint8_t lead;
    int32_t bytes;
};

constexpr Utf8Form kUtf8Forms[] = {
    {0xFC, 0x01, 6}, {0xF8, 0x03, 5}, {0xF0, 0x07, 4},
    {0xE0, 0x0F, 3}, {0xC0, 0x1F, 2}, {0x00, 0xFF, 1},
};

// Each following byte carries 6 bits below its two marker bits (binary 10).
constexpr uint32_t kTrailBits = 6;
constexpr uint8_t kTrailMark = 0x80;
constexpr uint8_t kTrailMask = 0x3F;

// The lead byte's marker and payload mask for each length of encoding.
constexpr uint8_t kLeadMark[7] = {0, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
constexpr uint8_t kLeadMask[7] = {0, 0x7F, 0x1F, 0x0F, 0x07, 0x03, 0x01};

// unicode_to_utf8 writes at most six bytes; the scratch area keeps room for a
// terminator after them.
constexpr uint32_t kEncodeScratch = 8;

const Utf8Form &form_of(uint8_t lead) {
    for (const Utf8Form &form : kUtf8Forms) {
        if (lead >= form.from) return form;
    }
    return kUtf8Forms[5];  // not reached: the last form starts at 0
}

// Bytes of the encoding of cp; anything of 27 bits or more takes the 6-byte form.
uint32_t encoded_length(uint32_t cp) {
    if (cp <= 0x7F) return 1;
    if (cp <= 0x7FF) return 2;
    if (cp <= 0xFFFF) return 3;
    if (cp <= 0x1FFFFF) return 4;
    if (cp <= 0x3FFFFFF) return 5;
    return 6;
}

}  // namespace

extern "C" {

int32_t utf8_to_unicode(const char *src, uint32_t *out) {
    if (!qel::accepted(src, out)) return 0;
    const auto *bytes = reinterpret_cast<const uint8_t *>(src);
    const Utf8Form &form = form_of(bytes[0]);
    uint32_t cp = bytes[0] & form.lead;
    // Continuation bytes are taken on trust, the terminator among them: a sequence cut
    // short by the end of the text reads past it.
    for (int32_t i = 1; i < form.bytes; ++i) cp = (cp << kTrailBits) | (bytes[i] & kTrailMask);
    *out = cp;
    return form.bytes;
}

char *unicode_to_utf8(uint32_t cp, char *dst) {
    if (!qel::accepted(dst)) return nullptr;
    const uint32_t length = encoded_length(cp);
    // The lead's mask keeps bit 30 alone in the 6-byte form: bit 31 is lost.
    const uint32_t leadShift = kTrailBits * (length - 1);
    dst[0] = static_cast<char>(kLeadMark[length] | ((cp >> leadShift) & kLeadMask[length]));
    for (uint32_t i = 1; i < length; ++i) {
        const uint32_t shift = kTrailBits * (length - 1 - i);
        dst[i] = static_cast<char>(kTrailMark | ((cp >> shift) & kTrailMask));
    }
    return dst + length;
}

uint32_t get_unicode_strlen(const char *utf8) {
    // Sizes buffers, it does not count characters: the 3- and 4-byte forms are counted
    // twice, and lead bytes of the 5- and 6-byte forms step one byte only.
    const uint32_t length = ZEPO_StrLen(utf8);
    const auto *bytes = reinterpret_cast<const uint8_t *>(utf8);
    uint32_t units = 0;
    for (uint32_t i = 0; i < length;) {
        const uint8_t lead = bytes[i];
        if (lead < 0x80) {
            units += 1;
            i += 1;
        } else if (lead >= 0xC0 && lead <= 0xDF) {
            units += 1;
            i += 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            units += 2;
            i += 3;
        } else if (lead >= 0xF0 && lead <= 0xF7) {
            units += 2;
            i += 4;
        } else {
            units += 1;
            i += 1;
        }
    }
    return units;
}

uint32_t *utf8Str_to_unicodeStr(const char *utf8) {
    if (!qel::accepted(utf8)) return nullptr;
    const uint32_t units = get_unicode_strlen(utf8);
    if (units == 0) return nullptr;
    const uint32_t size = units * 4 + 4;
    auto *ucs = static_cast<uint32_t *>(qel::heap_alloc(size));
    if (ucs == nullptr) return nullptr;
    (void)memset_s(ucs, size, 0, size);

    // The position steps by each form's length, so a lead byte that promises more bytes
    // than remain steps over the terminator and decoding runs on into what follows.
    // Only the room sized above is ever written: a run-on stops when the units are full.
    const auto *bytes = reinterpret_cast<const uint8_t *>(utf8);
    uint32_t at = 0;
    for (uint32_t n = 0; n < units && bytes[at] != 0; ++n) {
        at += static_cast<uint32_t>(utf8_to_unicode(utf8 + at, &ucs[n]));
        ucs[n + 1] = 0;
    }
    return ucs;
}

uint32_t get_utf8_strlen(const uint32_t *ucs) {
    if (!qel::accepted(ucs)) return 0;
    uint32_t length = 0;
    for (const uint32_t *unit = ucs; *unit != 0; ++unit) length += encoded_length(*unit);
    return length;
}

char *unicodeStr_to_utf8Str(const uint32_t *ucs) {
    const uint32_t length = get_utf8_strlen(ucs);
    if (length == 0) return nullptr;
    const uint32_t size = length + 1;
    auto *utf8 = static_cast<char *>(qel::heap_alloc(size));
    if (utf8 == nullptr) return nullptr;
    (void)memset_s(utf8, size, 0, size);

    uint32_t written = 0;
    for (const uint32_t *unit = ucs; *unit != 0; ++unit) {
        char scratch[kEncodeScratch];
        (void)memset_s(scratch, sizeof scratch, 0, sizeof scratch);
        char *end = unicode_to_utf8(*unit, scratch);
        *end = '\0';
        const uint32_t encoded = static_cast<uint32_t>(end - scratch);
        if (encoded == 0) break;
        // A character that would reach past the terminator's byte ends the text here.
        if (encoded + written >= size) break;
        // The copy is given the text's whole length as its room, not what is left of it;
        // a failure is traced and the text carries on as if the copy had been made.
        (void)qel::traced(memcpy_s(utf8 + written, length, scratch, encoded));
        written += encoded;
        utf8[written] = '\0';
    }
    return utf8;
}

}  // extern "C"
