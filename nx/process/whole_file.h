// Files that are read and written as a whole, from and to message blocks. Any thread may call; the
// calls block for as long as the disk takes.
//
// Where a call fails with NX_ERROR_FAILURE, errno tells why.
#pragma once

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>
#include <sys/types.h>

class CNxMessageBlock;

// Reads all of a regular file, those of /proc too, which call themselves empty. The block is new,
// one area, and the caller's, who ends it with DestroyChained(); an empty file gives a block
// without bytes. A file that is being written to meanwhile may give a mixture. NX_OK with the block
// in `out`. Otherwise `out` is unchanged: NX_ERROR_NOT_FOUND when there is no such file,
// NX_ERROR_INVALID_ARG for an empty path, one with a zero byte, and for a folder, pipe or device;
// NX_ERROR_FAILURE: EFBIG when there are more than `maxSize` bytes, ENOMEM when there is no memory
// for them, else that of the system call.
[[nodiscard]] NxResult cnx_read_file(const CNxString& path, CNxMessageBlock*& out,
                                     unsigned long maxSize = 1UL << 30);

// Replaces the file's content, or makes the file, from the unread bytes of a chain, which stays as
// it is. Whoever reads the file, also after the process was killed or the power failed, finds the
// old or the new content, whole: a new file beside it, PATH.PID-N.tmp, is written, synced and
// renamed. What that means: hard links keep the old content; the file becomes the caller's; A
// PROCESS THAT IS KILLED MEANWHILE LEAVES THE .tmp FILE BEHIND. Of several writers at once the last
// wins. The permissions are those of the file that is replaced; for a new one `mode` less the
// umask. NX_OK: it is on the disk. NX_ERROR_PARTIAL_DATA, with errno: the new content is there, but
// its name could not be synced, and may be lost should the power fail now. Otherwise the old
// content stays and no other file is left: NX_ERROR_INVALID_ARG for an empty path, one with a zero
// byte, a name that is a folder, and one that is not a regular file's (a symbolic link is neither
// followed nor replaced); NX_ERROR_NOT_FOUND when there is no such folder; NX_ERROR_FAILURE.
[[nodiscard]] NxResult cnx_write_file(const CNxString& path, const CNxMessageBlock& chain,
                                      mode_t mode = 0644);
