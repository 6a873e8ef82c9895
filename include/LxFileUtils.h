/// @file
/// File-system utilities for application processes on the device: ten free functions.
///
/// What holds for all of them:
/// - Paths are byte strings that end at their first NUL; they are used unchanged. Relative ones resolve against the
///   process's current directory at each system call. Any length is safe: what the kernel does not take fails like
///   any other bad path.
/// - An ordinary failure is a result, never an exception. Each failure is one line through `__dlog_printf`, which the
///   program supplies (see dlog/dlog.h): severity 3, source tag "LxFileUtils.cpp", a text that begins with the name of
///   the function. "Lines" below quotes these texts; `errno` numbers are those of the target system.
/// - Only memory exhaustion inside standard strings, containers and streams throws (`std::bad_alloc`), and passes
///   through. The input and output of the standard streams swallow it; the functions that use them say so.
/// - After a failure `errno` holds what the last system call left in it; it is never restored.
/// - Threads: every function may run at any time on any thread, `GenHtmlPagefromTextFile` once at a time in a process.
///   Containers passed in must not be shared between calls that run at once.
/// - Nothing is flushed to stable storage: after a power cut even a finished file may be empty.
///
/// Each example compiles on its own after `#include <LxFileUtils.h>`.
#ifndef ORV_LX_FILE_UTILS_H
#define ORV_LX_FILE_UTILS_H

#include <list>
#include <map>
#include <string>
#include <vector>

namespace orv_fileutils {

/// Tells whether `path` names an existing regular file, symbolic links followed.
///
/// A directory, device, FIFO or socket, a dangling link, an empty path and a file that the caller may not reach all
/// give false.
///
/// @param path  NUL-terminated path; not null
/// @return true exactly when the status of `path` can be read and says regular file; after a failed query `errno`
///         tells why it could not be read
/// Lines: none. Disk: untouched. Threads: any. Exceptions: none; no memory is allocated.
/// @code
/// if (!orv_fileutils::FileExists("/etc/hostname")) return;
/// @endcode
bool FileExists(const char* path);

/// Moves the regular file `source` to `destination`, also to another file system.
///
/// First a plain rename is tried: on one file system that is all, and the file keeps its inode, whole mode, owner and
/// times. Only when the kernel answers EXDEV, the data is copied in blocks of 4096 bytes into a new file named
/// `destination` + "_" and six characters, which gets the nine permission bits of `source` and is renamed over
/// `destination`; then `source` is removed. Whoever reads `destination` sees the old content or all of the new.
///
/// A copy does not carry over set-id and sticky bits, owner, group, times, extended attributes and holes. A read or
/// write that a signal interrupts is a failure, not tried again. When the process is killed or the power fails during
/// a copy, the file "destination_??????" may be left; `source` stays whole until `destination` is in place.
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
/// @param source       path of the file to move; what is not a regular file is refused
/// @param destination  path to move to; an existing file is replaced. Its directory must be writable; across file
///                     systems its last component may have at most 248 bytes where the limit is 255
/// @return true when the content is at `destination`, also (with a line) when a copied `source` was not removed. False:
///         `destination` and `source` are as they were and no temporary file is left, unless a line says that it could
///         not be removed
/// Lines:
///   "RenameFileAcrossFs: stat(SOURCE) failed (ERRNO)."
///   "RenameFileAcrossFs: SOURCE is not a regular file (0xTYPE)."  TYPE: 4000 directory, 2000 and 6000 devices,
///                                                                 1000 FIFO, c000 socket
///   "RenameFileAcrossFs: rename(SOURCE, DESTINATION) failed (ERRNO)."
///   "RenameFileAcrossFs: mkstemp(TEMPORARY) failed (ERRNO)."
///   "RenameFileAcrossFs: open(SOURCE) failed (ERRNO)."
///   "RenameFileAcrossFs: write() failed (ASKED, WRITTEN, ERRNO)."  counts in bytes; WRITTEN -1 is an error, less than
///                                                                  ASKED a short write, whose ERRNO is a stale one
///   "RenameFileAcrossFs: chmod(TEMPORARY, MODE) failed (ERRNO)."   MODE in octal
///   "RenameFileAcrossFs: rename(TEMPORARY, DESTINATION) failed (ERRNO)."
///   "RenameFileAcrossFs: unlink(SOURCE) failed (ERRNO)."           the result is true; 116 (ESTALE): not tried, see
///                                                                  above
///   "RenameFileAcrossFs: unlink(TEMPORARY) failed (ERRNO)."        after another failure; TEMPORARY is left
///   A failed read of `source` gives false without a line.
/// Threads: any; moves onto one destination do not disturb each other, the last one stays. Exceptions: none; no
/// memory is allocated.
/// @code
/// if (!orv_fileutils::RenameFileAcrossFs("/var/spool/log.1", "/media/usb/log.1")) return;  // the log says why
/// @endcode
bool RenameFileAcrossFs(const std::string& source, const std::string& destination);

/// Copies the bytes of the regular file `source` into `destination`.
///
/// The destination is written in place through standard file streams: an existing file is emptied first and keeps its
/// inode and mode (its owner may find it short if the copy fails), a new one gets mode 0666 less the process's
/// file-creation mask. Permissions, owner and times of `source` are not carried over. Symbolic links are followed on
/// both sides. A path copied onto itself ends up empty.
///
/// @param source       path of the file to read; never changed, unless it is the destination too
/// @param destination  path of the file to write; its directory must exist
/// @return 0   both files were opened. This does not say that the data arrived: after a read error or on a full disk
///             the destination is short or empty, and the result is 0 all the same. Compare the files, or at least
///             their sizes, where it matters
///         -1  `source` is not an existing regular file; nothing was touched
///         -2  `source` could not be opened for reading; nothing was touched
///         -3  `destination` could not be opened for writing; nothing was touched
/// Lines: none. Threads: any; two copies into one destination spoil it. Exceptions: `std::bad_alloc` when a stream
/// cannot be built; memory exhaustion during the copy ends it early with result 0.
/// @code
/// if (orv_fileutils::CopyFile("/etc/hostname", "/tmp/hostname") != 0) return;
/// @endcode
int CopyFile(const std::string& source, const std::string& destination);

/// Creates the directory `path` and every missing directory above it; the worker of `MakeDirPath`.
///
/// The parent of the topmost missing directory must exist and must be neither "/" nor ".": a directory directly below
/// the root or the current directory is refused, even when it exists. Other spellings of the two ("//", "./.") are not
/// recognised. All created directories get `mode` less the process's file-creation mask. An object of any type that
/// stands at `path` already counts as created, so callers that race for one path all succeed.
///
/// Of a path longer than the kernel takes (4095 bytes) no ancestor that is too long itself is tried: the call fails
/// with "File name too long" and creates nothing more.
///
/// @param path  NUL-terminated path; not null; a trailing slash is allowed
/// @param mode  permission bits as for mkdir(2), such as 0755
/// @return true when `path` exists; false: directories that were created before the failing one stay
/// Lines, one for each false:
///   "DoMakeDirPath: malloc failure (dirCopy)"
///   "DoMakeDirPath: Can't make directory in PARENT"   PARENT is "/" or "."
///   "DoMakeDirPath: could not create subdirectory PATH due to error: TEXT"   PATH is the directory that failed,
///                                                                             TEXT is the system's text for errno
/// Threads: any. Exceptions: none; stack use does not grow with the path.
/// @code
/// if (!orv_fileutils::DoMakeDirPath("/var/tmp/spool/in", 0755)) return;
/// @endcode
bool DoMakeDirPath(const char* path, unsigned int mode);

/// Makes sure that `path` exists: creates it with all missing parents where it does not, and sets its mode on request.
///
/// Where `path` exists already, of whatever type, nothing is created (a regular file counts too). Otherwise
/// `DoMakeDirPath` does the work, with its rule for "/" and ".".
///
/// @param path       NUL-terminated path of at most 1024 bytes; not null
/// @param mode       permission bits as for mkdir(2), such as 0755; created directories get them less the process's
///                   file-creation mask
/// @param applyMode  true: `path` itself (not its parents) is given exactly `mode` by chmod, also when it existed
///                   before and also when it is a file
/// @return true when `path` exists, also (with a line) when its mode could not be set; false: directories that were
///         created before the failing one stay
/// Lines:
///   "MakeDirPath: can't make path of unusual size: LENGTH"
///   the line of `DoMakeDirPath`, then "MakeDirPath: Create 'PATH' directory failed."
///   "MakeDirPath: Failed to chmod on 'PATH': errno: ERRNO"   the result is true
/// Threads: any. Exceptions: none.
/// @code
/// if (!orv_fileutils::MakeDirPath("/var/tmp/spool/out", 0750, /*applyMode=*/true)) return;
/// @endcode
bool MakeDirPath(const char* path, unsigned int mode, bool applyMode);

/// Lists the regular files of one directory, not of its subdirectories, sorted by byte value.
///
/// The type of an entry is the one that the directory itself records; no status is queried. So symbolic links are
/// never listed, not even those to regular files, and on a file system that does not record types nothing is.
///
/// In a pattern `*` stands for any run of bytes, the empty one included, and `?` for exactly one byte; every other byte
/// stands for itself, upper and lower case differ, and the whole name must match. `*` also matches a leading dot.
///
/// @param dirPath         directory to list; null or empty is an error
/// @param includePattern  only names that match are kept; null or "" keeps all
/// @param excludePattern  names that match are dropped, also when they match `includePattern`; null or "" drops none
/// @param fileList        receives the names. On success the whole list is sorted, elements from before the call
///                        included; equal names are kept
/// @param withDirPath     true: each name is preceded by `dirPath` and, unless it ends in one, a "/"
/// @param clearList       true: the list is emptied first, before anything can fail; false: it is added to
/// @param logOpenError    false: a directory that cannot be opened gives false without a line
/// @return true when the directory was read to its end, also when nothing was found. False when it could not be
///         opened: nothing was added. False when reading broke off: the names found so far stand at the front of the
///         list, and the list is not sorted
/// Lines:
///   "GetDirFileList: No directory specified."
///   "GetDirFileList: Error opening directory folder 'DIRECTORY', errno: ERRNO"
///   "GetDirFileList: readdir_r failed for directory: DIRECTORY, error: ERROR"   ERROR is an errno number
/// Disk: untouched. Threads: any. Exceptions: `std::bad_alloc`; the list keeps what it got until then, and the
/// directory handle stays open.
/// @code
/// std::list<std::string> logs;
/// orv_fileutils::GetDirFileList("/var/log", "*.log", "debug*", logs, /*withDirPath=*/true, /*clearList=*/true,
///                               /*logOpenError=*/true);
/// @endcode
bool GetDirFileList(const char* dirPath, const char* includePattern, const char* excludePattern,
                    std::list<std::string>& fileList, bool withDirPath, bool clearList, bool logOpenError);

/// Gives the mark that ends a table in a text table file: one line feed.
///
/// Write it after the last row of each table; written on its own, it puts a spacer between two tables of the page.
///
/// @return a string of its own for each call, of size 1
/// Lines: none. Disk: untouched. Threads: any. Exceptions: none in practice.
/// @code
/// std::string spacer = orv_fileutils::TextFileTableDelimter();
/// @endcode
std::string TextFileTableDelimter();

/// Formats one row of a text table file: head cell, ":", further cells joined by ",", and ";".
///
/// A row of one cell is that cell and ":" without a ";", so a row that follows it in the same table is read as its
/// further cells; give such a row a second, empty cell to keep it apart. No cells give the empty string. Cells are
/// copied byte for byte, without quoting: no cell may hold a line feed or ";", the head cell no ":", a further cell
/// no ",". They are not checked either, and are markup in the page (see `GenHtmlPagefromTextFile`).
///
/// @param cells  the row's cells, in UTF-8; not changed
/// @return the text of the row, without a line feed
/// Lines: none. Disk: untouched. Threads: any. Exceptions: `std::bad_alloc`, and `std::length_error` for a row
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
/// Each line of the file becomes a table with a border, an empty line a spacer paragraph; rows end at ";", the head
/// cell at the row's first ":", further cells at ",". Of three cells or more an empty last one is not shown. A row
/// without ":" is shown twice: whole as the head cell, then split at ",". The page is one line of UTF-8 text. Cells
/// reach it unescaped, so whoever controls a cell controls the page: make foreign text safe before writing it into the
/// file.
///
/// The page is written to "/var/tmp/TextToHtml_PID.tmp", PID being the process id, and moved onto `pagePath` by
/// `RenameFileAcrossFs`; whoever reads `pagePath` sees the old page or all of the new. A new page has mode 0666 less
/// the process's file-creation mask. The name in /var/tmp can be foreseen and is opened through symbolic links: give
/// services a private /var/tmp.
///
/// @param textFilePath  NUL-terminated path of the text table file; not null. A file that cannot be read gives, without
///                      a line, a page without tables
/// @param pagePath      NUL-terminated path of the page; not null; an existing file is replaced
/// There is no result: without a line the page was replaced. When the disk of /var/tmp is full, it is replaced by an
/// incomplete page, also without a line. When the temporary file cannot be opened, the move fails; but if a file of
/// that name was left there, that file is moved into place.
/// Lines, when the move fails; the old page then stays, and the temporary file too:
///   a line of `RenameFileAcrossFs`, save after a failed read, then
///   "GenHtmlPagefromTextFile: RenameFileAcrossFs(TEMPORARY, PAGE) failed."
/// Threads: any, but only one call at a time in a process. Exceptions: `std::bad_alloc`; the page stays as it was, and
/// the temporary file may be left. Memory exhaustion while a line is read or written ends the page early instead.
/// @code
/// orv_fileutils::GenHtmlPagefromTextFile("/var/tmp/status.txt", "/srv/www/status.html");
/// @endcode
void GenHtmlPagefromTextFile(const char* textFilePath, const char* pagePath);

/// Reads a file of name-value lines into a map.
///
/// Every line is trimmed of blanks, tabs, vertical tabs, form feeds and carriage returns at both ends. Empty lines and
/// lines that begin with `commentPrefix` are skipped. Every other line is cut at its first `delimiter` into name and
/// value, and both are trimmed; a line without `delimiter` is a name with an empty value. There is no quoting, no
/// continuation and no comment after a value.
///
/// @param filePath       path of the file
/// @param nameValues     receives the entries: the last line of a name wins, over an entry from before the call too;
///                       other entries are kept. The empty name is a valid one
/// @param delimiter      the byte that ends a name, such as '='
/// @param commentPrefix  beginning of a comment line, such as "#"; empty for no comments
/// @return true when the file was read to its end, or as far as it could be: a read error, and a directory given for a
///         file, end the reading like the end of the file. False: the file could not be opened (the map is as it was),
///         or a name could not be extracted (the map holds the entries of earlier lines)
/// Lines, one for each false:
///   "ReadNameValueFromFile: Unable to open file "PATH""
///   "ReadNameValueFromFile: Error processing line NUMBER in file "PATH".  No delimiter 'C' found."   seen only when
///                                                          memory runs out; lines count from 1, every one of the file
/// Disk: untouched. Threads: any. Exceptions: `std::bad_alloc`; the map keeps the entries of earlier lines, and may
/// hold the name of the current one with an empty value. Memory exhaustion while a line or a value is read ends the
/// reading, or gives an empty value.
/// @code
/// std::map<std::string, std::string> settings;
/// if (!orv_fileutils::ReadNameValueFromFile("/etc/app.conf", settings, '=', "#")) return;
/// @endcode
bool ReadNameValueFromFile(const std::string& filePath, std::map<std::string, std::string>& nameValues, char delimiter,
                           const std::string& commentPrefix);

}  // namespace orv_fileutils

#endif  // ORV_LX_FILE_UTILS_H
