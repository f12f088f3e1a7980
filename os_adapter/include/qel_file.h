/*
 * qel_file.h - file, stream, directory and descriptor wrappers, and the file utilities.
 *
 * Each wrapper checks its arguments, calls the C library once and returns its result
 * and errno unchanged (no retry on EINTR).  Text arguments marked "text" are refused
 * when null or empty; other pointers when null; descriptors and integers are never
 * checked.  A refusal calls nothing, leaves errno as it was and returns the value
 * given for the function: -1, NULL, 0 (ZEPO_Fread, ZEPO_Fwrite) or 4294967295 (the
 * 64-bit results of ZEPO_TellDir, ZEPO_Ftell, ZEPO_Read, ZEPO_Write: the low 32 bits
 * all ones, NOT -1).
 *
 * Handles are the C library's own (DIR *, FILE *, descriptors).  Offsets of
 * ZEPO_Fseek, ZEPO_LSeek and ZEPO_Ftruncate are signed 32-bit and sign-extended, so
 * they cannot reach beyond 2 GiB.
 *
 * Thread safety: no state of the library's own is touched; each function is as safe
 * as the service it wraps (readdir on one stream from two threads is not).
 * get_space_info reads g_mtab_mnt_file, which callers must not change meanwhile.
 */
#ifndef QEL_FILE_H
#define QEL_FILE_H

#include <dirent.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* File status, filled by ZEPO_Stat and ZEPO_FStat.  Special-file device numbers,
 * block size, block count and the nanoseconds of the times are not carried. */
typedef struct ZEPO_STAT {
    uint64_t device;    /* st_dev */
    uint64_t inode;     /* st_ino */
    uint32_t mode;      /* st_mode: type and permission bits */
    uint32_t linkCount; /* st_nlink, low 32 bits */
    uint64_t owner;     /* st_uid, zero-extended */
    uint64_t group;     /* st_gid, zero-extended */
    int64_t size;       /* st_size, bytes */
    int64_t accessTime; /* seconds of the last access */
    int64_t modifyTime; /* seconds of the last modification */
    int64_t changeTime; /* seconds of the last status change */
} ZEPO_STAT;

/* Space of a file system in bytes (block count times block size), filled by
 * get_space_info and ZEPO_GetFreeSpace. */
typedef struct ZEPO_SPACE_INFO {
    double total;
    double used;
    double available; /* to unprivileged users */
} ZEPO_SPACE_INFO;

/* ---- Directories ------------------------------------------------------------------ */

/* opendir(path).  Only a null path is refused (NULL); an empty path goes to opendir,
 * which fails with ENOENT. */
DIR *ZEPO_OpenDir(const char *path);

/* closedir(dir): 0 or -1.  Null dir: -1. */
int32_t ZEPO_CloseDir(DIR *dir);

/* readdir(dir): the next entry, or NULL at the end or on error.  Null dir: NULL. */
struct dirent *ZEPO_ReadDir(DIR *dir);

/*
 * Stores ZEPO_ReadDir(dir) into *out and returns 0: 0 means a read was made, not that
 * an entry was found; the end of the directory shows as a stored NULL.  size is
 * accepted and ignored, and out is not checked: it must point to a valid place.
 * Null dir: -1 with *out untouched.
 */
int32_t ZEPO_ReadDir_S(DIR *dir, uint32_t size, struct dirent **out);

/* dirfd(dir): the descriptor or -1.  Null dir: -1. */
int32_t ZEPO_DirFd(DIR *dir);

/* rewinddir(dir).  Null dir: returns without a call. */
void ZEPO_RewindDir(DIR *dir);

/* seekdir(dir, pos), pos signed 32-bit.  Null dir: returns without a call. */
void ZEPO_SeekDir(DIR *dir, int32_t pos);

/* telldir(dir): the position or -1.  Null dir: 4294967295, not -1. */
int64_t ZEPO_TellDir(DIR *dir);

/*
 * scandir(dir, namelist, filter, compare): the number of entries or -1.  Null dir or
 * null namelist: -1.  filter and compare go unchecked (NULL: no filter, no sorting).
 * Release the list with ZEPO_DestoryNameList, not with free.
 */
int32_t ZEPO_ScanDir(const char *dir, struct dirent ***namelist,
                     int (*filter)(const struct dirent *),
                     int (*compare)(const struct dirent **, const struct dirent **));

/*
 * alphasort(e1, e2) / versionsort(e1, e2): <0, 0 or >0.  The null checks are unequal on
 * purpose, so that a sort meeting null entries still ends: a null e1 gives -1 (orders
 * before), a null e2 gives 1 (orders after).
 */
int32_t ZEPO_Alphasort(const struct dirent **e1, const struct dirent **e2);
int32_t ZEPO_Versionsort(const struct dirent **e1, const struct dirent **e2);

/* rmdir(path): 0 or -1.  Text path refused: -1. */
int32_t ZEPO_RmDir(const char *path);

/* chdir(path): 0 or -1.  Text path refused: -1. */
int32_t ZEPO_ChDir(const char *path);

/* getcwd(buf, size), size signed 32-bit: buf or NULL.  Null buf: NULL (no buffer is
 * allocated, unlike getcwd(NULL, ...)). */
char *ZEPO_GetCwd(char *buf, int32_t size);

/* mkdir(path, mode): 0 or -1.  Text path refused: -1. */
int32_t ZEPO_MkDir(const char *path, uint32_t mode);

/* ---- Paths and names ---------------------------------------------------------------- */

/* access(name, mode): 0 or -1.  Text name refused: -1. */
int32_t ZEPO_Access(const char *name, int32_t mode);

/* remove(path): 0 or -1.  Text path refused: -1. */
int32_t ZEPO_Remove(const char *path);

/* rename(oldPath, newPath): 0 or -1.  Either text refused: -1. */
int32_t ZEPO_Rename(const char *oldPath, const char *newPath);

/*
 * stat(path) into *record: 0, or the non-zero result of stat (-1, errno set) with the
 * record untouched.  On success the whole record is cleared before the fields are
 * stored.  Null path or null record: -1.  An empty path goes to stat (ENOENT).
 */
int32_t ZEPO_Stat(const char *path, ZEPO_STAT *record);

/* fstat(fd) into *record, as ZEPO_Stat.  Null record: -1. */
int32_t ZEPO_FStat(int32_t fd, ZEPO_STAT *record);

/*
 * Stores the size of the file at path into *size.  Returns 0 when stored; 1 when the
 * status cannot be read or the file has 4294967295 bytes or more (the boundary is
 * 4294967294 on purpose), *size then untouched; -1 for a null or empty path or a null
 * size.
 */
int32_t ZEPO_GetFileSize(const char *path, uint32_t *size);

/* ---- Streams ------------------------------------------------------------------------ */

/* fopen(path, mode): stream or NULL.  Either text refused: NULL. */
FILE *ZEPO_Fopen(const char *path, const char *mode);

/* Identical to ZEPO_Fopen on purpose. */
FILE *ZEPO_Fsopen(const char *path, const char *mode);

/* fflush(stream): 0 or EOF.  Null stream: -1 (no stream is flushed, unlike
 * fflush(NULL)). */
int32_t ZEPO_Fflush(FILE *stream);

/* fclose(stream): 0 or EOF.  Null stream: -1. */
int32_t ZEPO_Fclose(FILE *stream);

/* tmpfile(): stream or NULL.  Nothing to check. */
FILE *ZEPO_TmpFile(void);

/* fgetc(stream): the character or EOF.  Null stream: -1. */
int32_t ZEPO_Fgetc(FILE *stream);

/* fputc(ch, stream): the character or EOF.  Null stream: -1. */
int32_t ZEPO_Fputc(int32_t ch, FILE *stream);

/* fgets(buf, n, stream): buf or NULL.  Null buf or stream: NULL. */
char *ZEPO_Fgets(char *buf, int32_t n, FILE *stream);

/* fputs(str, stream): non-negative or EOF.  Null str or stream: -1 (an empty str is
 * written: nothing). */
int32_t ZEPO_Fputs(const char *str, FILE *stream);

/* fread(buf, size, n, stream): items read.  Null buf or stream: 0. */
uint32_t ZEPO_Fread(void *buf, uint32_t size, uint32_t n, FILE *stream);

/* fwrite(buf, size, n, stream): items written.  Null buf or stream: 0. */
uint32_t ZEPO_Fwrite(const void *buf, uint32_t size, uint32_t n, FILE *stream);

/* fseek(stream, offset, whence), offset signed 32-bit: 0 or -1.  Null stream: -1. */
int32_t ZEPO_Fseek(FILE *stream, int32_t offset, int32_t whence);

/* ftell(stream): the position or -1.  Null stream: 4294967295, not -1. */
int64_t ZEPO_Ftell(FILE *stream);

/* rewind(stream).  Null stream: returns without a call. */
void ZEPO_Rewind(FILE *stream);

/* fgetpos(stream, pos): 0 or -1.  Null stream or pos: -1. */
int32_t ZEPO_Fgetpos(FILE *stream, fpos_t *pos);

/* fsetpos(stream, pos): 0 or -1.  Null stream or pos: -1. */
int32_t ZEPO_Fsetpos(FILE *stream, const fpos_t *pos);

/* clearerr(stream).  Null stream: returns without a call. */
void ZEPO_Clearerr(FILE *stream);

/* feof(stream): non-zero at end of file.  Null stream: -1. */
int32_t ZEPO_Feof(FILE *stream);

/* ferror(stream): non-zero on error.  Null stream: -1. */
int32_t ZEPO_Ferror(FILE *stream);

/* fileno(stream): the descriptor.  Null stream: -1. */
int32_t ZEPO_Fileno(FILE *stream);

/* ---- Descriptors ------------------------------------------------------------------- */

/* open(path, flags, mode): descriptor or -1; mode is passed whatever the flags.
 * Text path refused: -1. */
int32_t ZEPO_Open(const char *path, int32_t flags, uint32_t mode);

/* creat(path, mode): descriptor or -1.  Text path refused: -1. */
int32_t ZEPO_Creat(const char *path, uint32_t mode);

/* read(fd, buf, len): bytes read or -1.  Null buf: 4294967295, not -1. */
int64_t ZEPO_Read(int32_t fd, void *buf, uint32_t len);

/* write(fd, buf, len): bytes written or -1.  Null buf: 4294967295, not -1. */
int64_t ZEPO_Write(int32_t fd, const void *buf, uint32_t len);

/* close(fd): 0 or -1. */
int32_t ZEPO_Close(int32_t fd);

/* A second name for ZEPO_Close. */
int32_t ZEPO_CloseHandle(int32_t fd);

/* lseek(fd, offset, whence), offset signed 32-bit: the new offset or -1. */
int64_t ZEPO_LSeek(int32_t fd, int32_t offset, int32_t whence);

/* ftruncate(fd, length), length signed 32-bit: 0 or -1. */
int32_t ZEPO_Ftruncate(int32_t fd, int32_t length);

/* ioctl(fd, request, arg), request signed 32-bit and sign-extended, arg passed as a
 * 64-bit word: the service's result. */
int32_t ZEPO_Ioctl(int32_t fd, int32_t request, uint64_t arg);

/*
 * fcntl(fd, cmd, arg) with one optional integer argument: for cmd 0 (F_DUPFD) the
 * argument word is passed as it stands; for any other command it is read as a signed
 * 32-bit integer and sign-extended.  Commands that take a pointer (locks) cannot be
 * forwarded faithfully.  Returns the service's result.
 */
int32_t ZEPO_Fcntl(int32_t fd, int32_t cmd, ...);

/* ---- File utilities ---------------------------------------------------------------- */

/*
 * The mount table that get_space_info reads: 13 writable bytes holding "/proc/mounts".
 * Overwrite it (at most 12 characters) to read another table.
 */
extern char g_mtab_mnt_file[13];

/*
 * Creates path and its missing parents with mode, one prefix at a time.  A backslash
 * separates like a slash; a path containing "//" is first rewritten with every run of
 * slashes collapsed (and a leading slash dropped from the text, though the prefixes
 * still start at "/").  Returns 0 once the last part was made or tried - creation
 * failures (an existing directory, no permission) are not reported; "." and ".." give 0
 * at once.  Returns -1 for a null or empty path, a path with neither a slash nor a
 * backslash (a single relative name is refused), or a string or memory failure.
 *
 * The search for the next part steps by the length of the prefix made so far, so the
 * oddities of that walk are part of the interface:
 *  - a relative path whose last part is one character stops one part early: for "a/b"
 *    only "a/" is created;
 *  - a run of separators other than "//" (such as "/\") puts the walk behind, which
 *    can create a repeated tail folder ("x\\\yy/zzzz" also creates "x/yy/y/") or, in
 *    an absolute path, overrun the prefix buffer and give -1 after some folders were
 *    made.
 */
int32_t ZEPO_MkDir_P(const char *path, uint32_t mode);

/*
 * Copies src to dst (created or truncated, with the source's permission bits less the
 * creation mask) in 512-byte chunks, retrying reads and writes interrupted by a signal
 * and continuing short writes.  Returns -1 when src cannot be opened or its status
 * read, or dst cannot be opened; otherwise 0, even when a later read or write fails
 * (the copy is then short).  A write of 0 bytes abandons the rest of its chunk and the
 * copy goes on: the file is silently shortened.
 */
int32_t ZEPO_CopyFile(const char *src, const char *dst);

/*
 * Fills *space with the sizes of the file system that path lies on, found in the mount
 * table named by g_mtab_mnt_file: the first entry whose directory is path, whose device
 * name is path, whose device node is the device of path (or, for a block device path,
 * the device it represents), or whose directory lies on that device.  A file system of
 * 0 blocks gives three zeros.  Device names of the table that are not absolute
 * ("none", "tmpfs") are looked up relative to the current folder.  Returns 0, or -1
 * for a null argument, a path that cannot be read, a table that cannot be opened, no
 * matching entry, a failed statfs, or no memory for the 16 KiB line buffer.
 */
int32_t get_space_info(const char *path, ZEPO_SPACE_INFO *space);

/* As get_space_info, with statfs on path itself and no mount search.  path is not
 * checked; on failure (or a null space) *space is left untouched. */
void ZEPO_GetFreeSpace(const char *path, ZEPO_SPACE_INFO *space);

/*
 * Resolves path to an absolute path (realpath: links, "." and ".." resolved) into out
 * of outlen bytes.  Returns 0, or 1 for a null path, a path that cannot be resolved,
 * or an out too small: outlen must be at least the resolved length + 1 (outlen equal
 * to the length gives 1, with out[0] set to NUL).
 */
int32_t ZEPO_RelPath(const char *path, char *out, int32_t outlen);

/* Releases a list of ZEPO_ScanDir through ZEPO_MemTypeFreeD: each of the first count
 * entries (its slot then set to NULL), then the array.  A null list is ignored.  The
 * blocks come from the C library's scandir; the memory entry points hand them on to
 * free.  (The name is spelled so on purpose.) */
void ZEPO_DestoryNameList(struct dirent **list, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif /* QEL_FILE_H */
