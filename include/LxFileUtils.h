/// @file
/// File-system utilities for application processes on the device: ten free functions.
///
/// These rules apply to all of them:
/// - A path is a byte string that ends at its first NUL. It is used unchanged. A relative path is resolved against the
///   current directory of the process at each system call. A path of any length is safe: one that the kernel does not
///   accept fails like any other bad path.
/// - An ordinary failure is a result, never an exception. Each failure is reported as one line through `__dlog_printf`,
///   which the program supplies (see orv/dlog.h): severity 3, source tag "LxFileUtils.cpp", and a text that begins
///   with the name of the function. "Diagnostics" below quotes these texts. ERRNO is the error number of the target
///   system.
/// - The only exceptions are those of standard strings, containers and streams when memory runs out (`std::bad_alloc`).
///   The functions do not catch them. Reading and writing standard streams swallows them; functions that do so say it.
/// - After a failure `errno` is what the last system call left in it. It is never restored.
/// - Threads: every function may run at any time on any thread, except that only one call of `GenHtmlPagefromTextFile`
///   at a time may run in a process. Calls that run at the same time must not share the containers passed in.
/// - Nothing is flushed to the medium: after a power cut even a finished file may be empty.
///
/// Each example compiles on its own after `#include <LxFileUtils.h>`.
#ifndef ORV_LX_FILE_UTILS_H
#define ORV_LX_FILE_UTILS_H

#include <list>
#include <map>
#include <string>
#include <vector>

// Exported also where -fvisibility=hidden is the default.
#pragma GCC visibility push(default)
namespace orv_fileutils {

/// Returns whether `path` names an existing regular file. Symbolic links are followed.
///
/// A directory, a device, a FIFO, a socket, a dangling link, an empty path and a file in a directory that the caller
/// may not search are not existing regular files.
///
/// @param path  NUL-terminated path; not null
/// @return true if the status of `path` can be read and is that of a regular file; false otherwise. When the status
///         cannot be read, `errno` says why
/// Diagnostics: none. Disk: not changed. Threads: any. Exceptions: none; no memory is allocated.
/// @code
/// if (!orv_fileutils::FileExists("/etc/hostname")) return;
/// @endcode
bool FileExists(const char* path) __attribute__((nonnull));

/// Moves the regular file `source` to `destination`, also to another file system.
///
/// The function tries rename(2) first. On one file system nothing else is needed, and the file keeps its inode, mode,
/// owner and times. If the kernel answers EXDEV, the function copies the data in blocks of 4096 bytes into a new file
/// named `destination` + "_" and six characters, gives that file the nine permission bits of `source`, renames it to
/// `destination` and removes `source`. A reader of `destination` sees either the old content or all of the new content.
///
/// A copy does not preserve set-id and sticky bits, owner, group, times, extended attributes and holes. Where the
/// program may not set modes, as on a USB stick that root has mounted for all users, the move fails. A read or write
/// that a signal interrupts is a failure and is not repeated. If the process is killed or the power fails during a
/// copy, the file "destination_??????" may be left; `source` stays complete until `destination` is in place.
///
/// Links: on one file system a symbolic link at `source` is itself moved; across file systems the data of the file that
/// it leads to is copied, and the link is removed, never that file. A symbolic link at `destination` is replaced, not
/// followed. Two hard links of one file on one mount: rename(2) answers success and leaves both. Do not move a symbolic
/// link onto the file that it leads to: on one file system the rename replaces the file by a link to itself, and the
/// content is lost. Where that can happen, compare realpath(3) of both paths first.
///
/// Two names of one file: `source` can be another name of the file that was just put in place (through a bind mount, an
/// overlay or a link), so it is removed only if it is a symbolic link or still the file (device and inode) that it was
/// at the start. Otherwise it is left, with a line that ends in "failed (116)." (ESTALE).
///
/// @param source       path of the file to move; it must be a regular file
/// @param destination  path to move to; an existing file is replaced. Its directory must be writable. Across file
///                     systems its last component may have at most 248 bytes where the limit is 255
/// @return true when the content is at `destination`, also (with a line) when a copied `source` was not removed. False:
///         `destination` and `source` are as they were and no temporary file is left, unless a line says that it could
///         not be removed
/// Diagnostics:
///   "RenameFileAcrossFs: stat(SOURCE) failed (ERRNO)."
///   "RenameFileAcrossFs: SOURCE is not a regular file (0xTYPE)."  TYPE: 4000 directory, 2000 and 6000 devices,
///                                                                 1000 FIFO, c000 socket
///   "RenameFileAcrossFs: rename(SOURCE, DESTINATION) failed (ERRNO)."
///   "RenameFileAcrossFs: mkstemp(TEMPORARY) failed (ERRNO)."
///   "RenameFileAcrossFs: open(SOURCE) failed (ERRNO)."
///   "RenameFileAcrossFs: write() failed (ASKED, WRITTEN, ERRNO)."  counts in bytes; WRITTEN is -1 for an error. If it
///                                                                  is less than ASKED, the write was short, and ERRNO
///                                                                  is that of an earlier call
///   "RenameFileAcrossFs: chmod(TEMPORARY, MODE) failed (ERRNO)."   MODE in octal
///   "RenameFileAcrossFs: rename(TEMPORARY, DESTINATION) failed (ERRNO)."
///   "RenameFileAcrossFs: unlink(SOURCE) failed (ERRNO)."           the result is true; 116 (ESTALE): not tried, see
///                                                                  above
///   "RenameFileAcrossFs: unlink(TEMPORARY) failed (ERRNO)."        after another failure; TEMPORARY is left
///   A failed read of `source` returns false without a line.
/// Threads: any; of several moves to one destination the last one wins. Exceptions: none; no memory is allocated.
/// @code
/// if (!orv_fileutils::RenameFileAcrossFs("/var/spool/log.1", "/data/log.1")) return;  // the log says why
/// @endcode
bool RenameFileAcrossFs(const std::string& source, const std::string& destination);

/// Copies the bytes of the regular file `source` into `destination`.
///
/// The destination is written in place through standard file streams. An existing file is truncated first and keeps its
/// inode and mode; it is left short if the copy fails. A new file gets mode 0666 less the process's file-creation mask.
/// Permissions, owner and times of `source` are not preserved. Symbolic links are followed on both sides. A file that
/// is copied onto itself ends up empty.
///
/// @param source       path of the file to read; not changed, unless it is the destination, too
/// @param destination  path of the file to write; its directory must exist
/// @return 0   both files were opened. This does not mean that the data arrived: after a read error or on a full disk
///             the destination is short or empty, and the result is still 0. Where it matters, compare the files, or
///             at least their sizes
///         -1  `source` is not an existing regular file; nothing was touched
///         -2  `source` could not be opened for reading; nothing was touched
///         -3  `destination` could not be opened for writing; nothing was touched
/// Diagnostics: none. Threads: any; two copies at once to one destination corrupt it. Exceptions: `std::bad_alloc` when
/// a stream cannot be constructed; if memory runs out during the copy, the copy ends early with result 0.
/// Memory: a buffer of 64 KiB during the call; if it cannot be had, the copy goes on without it and is slower.
/// @code
/// if (orv_fileutils::CopyFile("/etc/hostname", "/tmp/hostname") != 0) return;
/// @endcode
int CopyFile(const std::string& source, const std::string& destination);

/// Creates the directory `path` and every missing directory above it; the worker of `MakeDirPath`.
///
/// The parent of the topmost missing directory must exist and must not be "/" or ".": a directory directly below the
/// root directory or the current directory is refused, even if it exists. Other spellings of the two ("//", "./.") are
/// not recognised. All created directories get `mode` less the process's file-creation mask. An object of any type that
/// is already at `path` counts as created, so callers that race to create one path all succeed.
///
/// If `path` is longer than the kernel accepts (4095 bytes), ancestors that are too long themselves are not tried: the
/// call fails with "File name too long" and creates nothing.
///
/// @param path  NUL-terminated path; not null; a trailing slash is allowed
/// @param mode  permission bits as for mkdir(2), such as 0755
/// @return true if `path` exists at the end. False: directories that were created before the failing one stay
/// Diagnostics, one line for each false:
///   "DoMakeDirPath: malloc failure (dirCopy)"
///   "DoMakeDirPath: Can't make directory in PARENT"   PARENT is "/" or "."
///   "DoMakeDirPath: could not create subdirectory PATH due to error: TEXT"   PATH is the directory that failed, TEXT
///                                                                            describes errno, as strerror(3) does
/// Threads: any. Exceptions: none; stack use does not grow with the path.
/// @code
/// if (!orv_fileutils::DoMakeDirPath("/var/tmp/spool/in", 0755)) return;
/// @endcode
bool DoMakeDirPath(const char* path, unsigned int mode) __attribute__((nonnull));

/// Creates the directory `path` and every missing directory above it, and sets its mode on request.
///
/// If an object of any type is already at `path` (a regular file counts, too), nothing is created. Otherwise
/// `DoMakeDirPath` does the work, with its rule for "/" and ".".
///
/// @param path       NUL-terminated path of at most 1024 bytes; not null
/// @param mode       permission bits as for mkdir(2), such as 0755; created directories get them less the process's
///                   file-creation mask
/// @param applyMode  true: `path` itself (not its parents) gets exactly `mode` by chmod, even if it existed before and
///                   even if it is a file
/// @return true if `path` exists at the end, even if its mode could not be set (with a line). False: directories that
///         were created before the failing one stay
/// Diagnostics:
///   "MakeDirPath: can't make path of unusual size: LENGTH"
///   the line of `DoMakeDirPath`, then "MakeDirPath: Create 'PATH' directory failed."
///   "MakeDirPath: Failed to chmod on 'PATH': errno: ERRNO"   the result is true
/// Threads: any. Exceptions: none.
/// @code
/// if (!orv_fileutils::MakeDirPath("/var/tmp/spool/out", 0750, /*applyMode=*/true)) return;
/// @endcode
bool MakeDirPath(const char* path, unsigned int mode, bool applyMode) __attribute__((nonnull));

/// Lists the regular files of one directory, not of its subdirectories, sorted by byte value.
///
/// The type of an entry is the one that the directory records; no status is queried. Symbolic links are therefore not
/// listed, not even links to regular files, and on a file system that does not record types nothing is listed.
///
/// In a pattern `*` matches any run of bytes, also an empty one, and `?` matches exactly one byte. Every other byte
/// matches itself, upper and lower case differ, and the whole name must match. `*` also matches a leading dot.
///
/// @param dirPath         directory to list; null or empty is an error
/// @param includePattern  list only names that match; null or "" lists all names
/// @param excludePattern  do not list names that match, even if they match `includePattern`; null or "" excludes no
///                        name
/// @param fileList        receives the names. On success the whole list is sorted, including the elements from before
///                        the call; equal names are kept
/// @param withDirPath     true: each name is preceded by `dirPath` and, unless `dirPath` ends in "/", a "/"
/// @param clearList       true: the list is cleared first, before anything can fail; false: names are added to it
/// @param logOpenError    false: a directory that cannot be opened is not reported; the result is still false
/// @return true if the directory was read to its end, even if nothing was found. False if it could not be opened:
///         nothing was added. False if reading failed halfway: the names found so far are at the front of the list, and
///         the list is not sorted
/// Diagnostics:
///   "GetDirFileList: No directory specified."
///   "GetDirFileList: Error opening directory folder 'DIRECTORY', errno: ERRNO"
///   "GetDirFileList: readdir_r failed for directory: DIRECTORY, error: ERROR"   ERROR is an errno number
/// Disk: not changed. Threads: any. Exceptions: `std::bad_alloc`; the list keeps the names added until then, and the
/// directory handle stays open.
/// @code
/// std::list<std::string> logs;
/// orv_fileutils::GetDirFileList("/var/log", "*.log", "debug*", logs, /*withDirPath=*/true, /*clearList=*/true,
///                               /*logOpenError=*/true);
/// @endcode
bool GetDirFileList(const char* dirPath, const char* includePattern, const char* excludePattern,
                    std::list<std::string>& fileList, bool withDirPath, bool clearList, bool logOpenError);

/// Returns the delimiter that ends a table in a text table file: one line feed.
///
/// Write it after the last row of each table. Written on its own, it adds a spacer between two tables of the page.
///
/// @return a new string of size 1
/// Diagnostics: none. Disk: not changed. Threads: any. Exceptions: none in practice.
/// @code
/// std::string spacer = orv_fileutils::TextFileTableDelimter();
/// @endcode
std::string TextFileTableDelimter();

/// Formats one row of a text table file: head cell, ":", further cells joined by ",", and ";".
///
/// A row of one cell is that cell and ":" without a ";". The reader therefore takes the next row of the same table as
/// further cells of this one; add a second, empty cell to avoid that. A row without cells is the empty string. Cells
/// are copied byte for byte and are not quoted: a cell must not contain a line feed or ";", the head cell must not
/// contain ":", and a further cell must not contain ",". Cells are not checked. In the page they are markup (see
/// `GenHtmlPagefromTextFile`).
///
/// @param cells  cells of the row, in UTF-8; not changed
/// @return the text of the row, without a line feed
/// Diagnostics: none. Disk: not changed. Threads: any. Exceptions: `std::bad_alloc`, and `std::length_error` for a row
/// longer than a string can be.
/// @code
/// std::vector<std::string> cells;
/// cells.push_back("Port 1");
/// cells.push_back("up");
/// cells.push_back("100 Mbit/s");
/// std::string row = orv_fileutils::AddTextFileFormattedRow(cells);  // "Port 1:up,100 Mbit/s;"
/// @endcode
std::string AddTextFileFormattedRow(std::vector<std::string>& cells);

/// Turns a text table file into an HTML page that reloads itself every 10 seconds, and moves the page into place.
///
/// Each line of the file becomes a table with a border, and an empty line becomes a spacer paragraph. A row ends at
/// ";", its head cell ends at its first ":", and further cells end at ",". In a row of three or more cells an empty
/// last cell is not shown. A row without ":" is shown twice: whole as the head cell, then split at ",". The page is one
/// line of UTF-8 text. Cells are not escaped, so the author of a cell can change the whole page: make text from others
/// safe before you write it into the file.
///
/// The page is written to "/var/tmp/TextToHtml_PID.tmp", where PID is the process id, and moved to `pagePath` by
/// `RenameFileAcrossFs`. A reader of `pagePath` sees either the old page or all of the new page. A browser that opens
/// the page as a file, without a server, can cut the new page to the size of the old one, until it reloads. A new page
/// has mode 0666 less the process's file-creation mask. Other users can predict the name in /var/tmp, and symbolic
/// links are followed there: give services a private /var/tmp.
///
/// @param textFilePath  NUL-terminated path of the text table file; not null. If it cannot be read, the page has no
///                      tables, and nothing is reported
/// @param pagePath      NUL-terminated path of the page; not null; an existing file is replaced
/// There is no result: if nothing is reported, the page was replaced. If the disk of /var/tmp is full, the page is
/// replaced by an incomplete one, and nothing is reported. If the temporary file cannot be opened, the move fails; but
/// if a file of that name was left there, that file is moved into place.
/// Diagnostics, when the move fails; then the old page stays, and the temporary file, too:
///   a line of `RenameFileAcrossFs` (except after a failed read), then
///   "GenHtmlPagefromTextFile: RenameFileAcrossFs(TEMPORARY, PAGE) failed."
/// Threads: any, but only one call at a time in a process. Exceptions: `std::bad_alloc`; the page stays as it was, and
/// the temporary file may be left. If memory runs out while a line is read or written, the page ends early instead.
/// @code
/// orv_fileutils::GenHtmlPagefromTextFile("/var/tmp/status.txt", "/srv/www/status.html");
/// @endcode
void GenHtmlPagefromTextFile(const char* textFilePath, const char* pagePath) __attribute__((nonnull));

/// Reads a file of name-value lines into a map.
///
/// Blanks, tabs, vertical tabs, form feeds and carriage returns are removed from both ends of every line. Empty lines
/// and lines that begin with `commentPrefix` are skipped. Every other line is split at its first `delimiter` into name
/// and value, and both are trimmed; a line without `delimiter` is a name with an empty value. Quotes, continuation
/// lines and comments after a value have no special meaning.
///
/// @param filePath       path of the file
/// @param nameValues     receives the entries. If a name occurs more than once, the last line wins; it also replaces an
///                       entry from before the call. Other entries are kept. The empty name is valid
/// @param delimiter      byte that ends a name, such as '='
/// @param commentPrefix  beginning of a comment line, such as "#"; empty if there are no comments
/// @return true if the file was read to its end. A read error, or a directory in place of a file, ends the reading like
///         the end of the file. False: the file could not be opened (the map is as it was), or a name could not be
///         extracted (the map has the entries of earlier lines)
/// Diagnostics, one line for each false:
///   "ReadNameValueFromFile: Unable to open file "PATH""
///   "ReadNameValueFromFile: Error processing line NUMBER in file "PATH".  No delimiter 'C' found."   only when memory
///                                                          runs out; NUMBER counts every line of the file, from 1
/// Disk: not changed. Threads: any. Exceptions: `std::bad_alloc`; the map keeps the entries of earlier lines, and may
/// contain the name of the current line with an empty value. If memory runs out while a line is read, the reading ends
/// like at the end of the file.
/// @code
/// std::map<std::string, std::string> settings;
/// if (!orv_fileutils::ReadNameValueFromFile("/etc/app.conf", settings, '=', "#")) return;
/// @endcode
bool ReadNameValueFromFile(const std::string& filePath, std::map<std::string, std::string>& nameValues, char delimiter,
                           const std::string& commentPrefix);

}  // namespace orv_fileutils
#pragma GCC visibility pop

#endif  // ORV_LX_FILE_UTILS_H
