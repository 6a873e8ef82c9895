/// @file
/// The safe companion of LxFileUtils.h: one call for each job where those functions leave something to the caller.
///
/// The ten functions flush nothing, publish cells unescaped, build pages under a name that others can predict, and
/// answer true where a careful program wants to know more. The functions of this header close these gaps. They call the
/// ten functions where those suffice, and the system where they do not.
///
/// These rules apply to all of them:
/// - An ordinary failure is a result, never an exception. Each failure is reported as one line through `__dlog_printf`
///   (see orv/dlog.h): severity 3, source tag "orv_safe", and a text that begins with the name of the function and
///   contains the call, the path, the error number and its text. "Diagnostics" below quotes these texts; ERROR stands
///   for "ERRNO, TEXT", such as "2, No such file or directory".
/// - The only exception is `std::bad_alloc`, when memory runs out.
/// - A call that a signal interrupts is repeated, and a short write is continued. Programs that other threads start
///   inherit no descriptor.
/// - Paths of any length are safe.
/// - Threads: all functions may run at any time on any thread. Calls that run at the same time must not share the
///   containers passed in.
///
/// Each example compiles on its own after `#include <orv/safe.h>`.
#ifndef ORV_SAFE_H
#define ORV_SAFE_H

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

// Exported also where -fvisibility=hidden is the default.
#pragma GCC visibility push(default)
namespace orv_safe {

// ---- Cells and rows

/// Turns any text into a cell that shows this text in a browser, and is never markup.
///
/// Ampersand, angle brackets, quotation marks, semicolon, comma, colon and the control characters of ASCII become
/// numeric character references without the semicolon, because a semicolon ends the row. So does a digit directly after
/// a reference. NUL, and each sequence of bytes that is not UTF-8, becomes U+FFFD, as a browser would show it. All
/// other characters stay, also blanks at both ends. The `textContent` of the cell is then the text; a browser draws
/// several blanks as one.
///
/// Use a result as a whole cell. To put text and markup into one cell, use `Cell`.
///
/// @param text  any bytes
/// @return the cell, for `orv_fileutils::AddTextFileFormattedRow`
/// Diagnostics: none. Disk: not changed. Threads: any. Exceptions: `std::bad_alloc`.
/// @code
/// std::string cell = orv_safe::SafeCell("<b>7; 8</b>");  // "&#60b&#62&#55&#59 8&#60/b&#62"
/// @endcode
std::string SafeCell(const std::string& text);

/// Formats one row of a text table file: makes each cell safe by `SafeCell`, and keeps every cell in its place.
///
/// The row is that of `orv_fileutils::AddTextFileFormattedRow`, with two exceptions, which the page would not show as
/// they are: a row of one cell ends in ";" and is shown as one cell, and an empty last cell is shown as an empty cell.
///
/// @param cells  texts of the cells, any bytes
/// @return the text of the row, without a line feed; empty if there are no cells
/// Diagnostics: none. Disk: not changed. Threads: any. Exceptions: `std::bad_alloc`.
/// @code
/// std::vector<std::string> cells;
/// cells.push_back("Port 1");
/// cells.push_back("10:20;30");
/// std::string row = orv_safe::SafeRow(cells);  // "Port 1:10&#58&#50&#48&#59&#51&#48;"
/// @endcode
std::string SafeRow(const std::vector<std::string>& cells);

/// A cell that mixes foreign text and markup of your own, part by part. A text is converted to a cell of only that
/// text.
///
/// Text is shown as `SafeCell` shows it; it may also be part of an attribute's value in quotation marks, but not of a
/// tag's name, a comment, a style or a script. Markup is copied unchanged and is yours to get right: complete elements,
/// no semicolon after a character reference. Each part ends the reference at the end of the one before.
///
/// Diagnostics: none. Disk: not changed. Threads: as a string. Exceptions: `std::bad_alloc`.
class Cell {
public:
    /// An empty cell.
    Cell();

    /// A cell of this text, any bytes.
    Cell(const std::string& text);  // NOLINT(google-explicit-constructor): text needs no more care than a string

    /// The same, of a text that ends at its first NUL.
    Cell(const char* text);  // NOLINT(google-explicit-constructor)

    /// Adds text, any bytes.
    Cell& Text(const std::string& text);

    /// Adds markup. `SafeMarkupRow` says which characters it must not contain.
    Cell& Markup(const std::string& markup);

private:
    friend std::string SafeMarkupRow(const std::vector<Cell>& cells);

    std::string markup_;
};

/// Formats one row, like `SafeRow`, of cells that may contain markup.
///
/// A text table file cannot contain certain characters in markup: line feed and ";" in no cell, ":" not in the first
/// one, "," not in the others. In texts and attributes write them as a reference without semicolon, such as "&#59". A
/// style has one declaration in each rule and is not in the first cell. A cell with such a character is left empty, so
/// that the others keep their place.
///
/// @param cells  the cells
/// @return the text of the row, without a line feed; empty if there are no cells
/// Diagnostics:
///   "SafeMarkupRow: Markup(MARKUP) failed (ERROR)."  22 (EINVAL): a cell is left empty
/// Disk: not changed. Threads: any. Exceptions: `std::bad_alloc`.
/// @code
/// std::vector<orv_safe::Cell> cells;
/// cells.push_back("<Port 1>");
/// cells.push_back(orv_safe::Cell().Markup("<a title=\"").Text("10 \"").Markup("\"><b>up</b></a>"));
/// std::string row = orv_safe::SafeMarkupRow(cells);  // "&#60Port 1&#62:<a title="10 &#34"><b>up</b></a>;"
/// @endcode
std::string SafeMarkupRow(const std::vector<Cell>& cells);

// ---- Files

/// How `CopyFile` and `MoveFile` work.
struct FileOptions {
    /// The file and the names in its directory are on the medium before the result is true.
    bool durable;
    /// The copy is read back from the medium, after what the kernel has of it in memory was dropped, and compared.
    bool verify;
    /// The copy also gets the owner, the set-id and sticky bits, the times, the extended attributes and the holes.
    bool preserve;
    /// Whatever exists at the destination stays, and the call fails.
    bool noReplace;
    /// Hears how far the copy is, and can cancel it: if it returns false, the call fails, and both files are as they
    /// were. It is called after each step of at most 1 MiB, and once more directly before the file is put in place, but
    /// never after that. `done` counts the bytes that were copied and, with `verify`, compared; `total` is the size of
    /// the file, or twice that. It must not throw. A move on one file system copies nothing and does not call it. Null:
    /// no function.
    bool (*progress)(void* context, uint64_t done, uint64_t total);
    /// The `context` of `progress`.
    void* progressContext;

    FileOptions() : durable(true), verify(false), preserve(false), noReplace(false), progress(0), progressContext(0)
    {
    }
};

/// Copies the regular file `source` to `destination`, which appears whole and in one step.
///
/// The copy is a new file: the data is written into a file beside `destination`, which then replaces what is there. So
/// a reader sees the old or the new content, a symbolic link is replaced and not followed, and other hard links of an
/// old file keep the old content. A symbolic link at `source` is followed. If both are names of one file, they have the
/// same content afterwards, in two files.
///
/// The copy gets the nine permission bits of `source`. With `preserve` it also gets the owner, the group and all twelve
/// bits of the mode (nine if the owner cannot be kept), the extended attributes, the times and the holes. What cannot
/// be kept is reported in a line that says so, and the result is still true: most file systems on USB sticks have no
/// modes and owners. In a file with holes, each block of 8 KiB of zero bytes becomes a hole; a file system without
/// holes fills them with zero bytes, without a line.
///
/// The result is what the medium has only with `durable`. Without it, all writes have succeeded, but a power cut can
/// still lose the content, also that of the replaced file.
///
/// After a kill or, with `durable`, a power cut, `destination` is the old or the whole new file. On file systems that
/// support files without a name (ext4, xfs, btrfs, tmpfs and others, where /proc is mounted), such a file vanishes with
/// the process. It gets a name only for the last steps, and only with `durable` or if it replaces a file. Then, and
/// always elsewhere, a file named ".orv_" and 16 hexadecimal digits can be left in the directory of `destination`; it
/// may be removed.
///
/// @param source       path of a regular file, or of a link to one; not changed
/// @param destination  path of the new file. An existing regular file or a symbolic link is replaced, everything else
///                     is refused. The directory must be writable, and also readable for `durable`. The last component
///                     may be as long as the file system allows
/// @param options      see FileOptions
/// @return true if the copy is at `destination`. False: `destination` is as it was, unless a line says that the file is
///         in place. No other file is left, unless a line says that it could not be removed
/// Diagnostics, each for false:
///   "CopyFile: CALL(PATH) failed (ERROR)."      CALL is a system call. PATH is `source`, `destination`, one of their
///                                               directories, or the file beside `destination`
///   "CopyFile: PATH is not a regular file (0xTYPE)."   TYPE: 4000 directory, 2000 and 6000 devices, 1000 FIFO,
///                                                      c000 socket
///   "CopyFile: linkat(DESTINATION) failed (17, File exists)."   with `noReplace`
///   "CopyFile: progress(SOURCE) failed (125, Operation canceled)."   `progress` returned false
///   "CopyFile: what was written for DESTINATION differs from SOURCE after byte OFFSET."   with `verify`
///   "CopyFile: fsync(DIRECTORY) failed (ERROR): the file is in place, but a power cut can undo that."
/// Diagnostics for true:
///   "CopyFile: fchmod(DESTINATION) failed (ERROR): the mode is not kept."
///   with `preserve`, also "owner and group are", "extended attributes are", "the attribute NAME is", "times are not
///   kept."
///   "CopyFile: unlinkat(PATH) failed (ERROR)."  the file PATH beside `destination` is left; also possible for false
/// Threads: any; of several copies to one destination the last one wins. Stack: 20 KiB.
/// @code
/// if (!orv_safe::CopyFile("/etc/hostname", "/var/tmp/hostname")) return;  // the log says why
/// @endcode
bool CopyFile(const std::string& source, const std::string& destination, const FileOptions& options = FileOptions());

/// Moves the regular file `source` to `destination`, also to another file system.
///
/// On one file system this is a rename, and the file keeps all that it has; with `durable`, the file is flushed before
/// the rename and both directories after it. To another file system, the file is copied as by `CopyFile`, with all its
/// options. Then `source` is removed, but only if it is still the file that was copied: device, inode, number of links,
/// size, times of its content and of its status; and only if the copy is still at `destination`. With `durable`, the
/// copy and its name are on the medium before that. Some file systems count whole seconds (UBIFS) or steps of two
/// (FAT): there a change within the same step that keeps the size is not noticed, so stop the writers of `source`
/// before.
///
/// Two names of one file (hard links, two spellings of a path, and two mounts of a directory) are refused, and nothing
/// is changed. The function does not only compare device numbers, which differ between the layers of an overlay: it
/// also tests whether the new file beside `destination` appears in the directory of `source`.
///
/// If `source` is a symbolic link, the content of the file that it leads to is copied, also on one file system, and the
/// link is removed, never that file.
///
/// After a kill or, with `durable`, a power cut, the content is at `source` or at `destination`, or at both, each
/// whole. A file beside `destination` can be left as after `CopyFile`.
///
/// @param source       path of a regular file, or of a link to one. With `durable`, the caller must be able to read the
///                     file and its directory
/// @param destination  as for `CopyFile`
/// @param options      see FileOptions; `verify` and `preserve` matter only if the file is copied
/// @return true if the file is at `destination` and `source` is removed. False: both are as they were, unless a line
///         says that the content or the file is in place
/// Diagnostics, each for false: those of `CopyFile`, with "MoveFile", and
///   "MoveFile: SOURCE and DESTINATION are the same file."
///   "MoveFile: CALL(SOURCE) failed (ERROR): the content is in place, and the source is kept."   116 (ESTALE):
///                                               `source` has changed since it was opened, and was not removed
///   "MoveFile: fstatat(DESTINATION) failed (116, Stale file handle): another file is there, and the source is kept."
/// Threads: any; of several moves to one destination at once the last one wins, and others can keep their source.
/// Stack: 20 KiB.
/// @code
/// if (!orv_safe::MoveFile("/var/spool/log.1", "/media/usb/log.1")) return;  // the log says why
/// @endcode
bool MoveFile(const std::string& source, const std::string& destination, const FileOptions& options = FileOptions());

// ---- Pages

/// How `PublishPage` works.
struct PageOptions {
    /// The page and its name are on the medium before the result is true. Off by default: a page is usually made again
    /// soon.
    bool durable;

    PageOptions() : durable(false)
    {
    }
};

/// Turns a text table file into an HTML page by `orv_fileutils::GenHtmlPagefromTextFile`, and replaces `page` by it in
/// one step, but only if it is whole.
///
/// The text is first read to its end, so a text that cannot be read makes no page. The page is made in
/// "/var/tmp/TextToHtml_PID.tmp", where PID is the process id: in a new file, which is created under that name before
/// the library opens it. Its size is compared with the size that the page of this text has, so an incomplete page is
/// noticed, whatever cut it: a full disk, a failed write or a lack of memory. Then the page is renamed to `page`, or
/// copied by `CopyFile` to another file system. A reader of `page` sees the old page or all of the new one. A symbolic
/// link at `page` is replaced, not followed. The page has mode 0666 less the process's file-creation mask.
///
/// If there is a file at the name in /var/tmp, it is removed if it is a regular file of this user (a killed process had
/// this id). Everything else that is there was planted: it stays untouched, and the page is not made. /var/tmp must be
/// sticky or private, as it is on every system, and /proc must be mounted. Processes of one user must not share
/// /var/tmp if they can have the same id, as in containers.
///
/// After a kill, `page` is the old or the new page, whole. "/var/tmp/TextToHtml_PID.tmp" may be left, and beside `page`
/// what `CopyFile` may leave. After a power cut, the same is true with `durable`; without it, the page may be empty.
///
/// @param textFile  path of the text table file, a regular file. If it is written meanwhile, its page is one of an
///                  incomplete text, or none is published; replacing it by a rename does no harm
/// @param page      path of the page. An existing regular file or a symbolic link is replaced, everything else is
///                  refused. Its directory must be writable, and also readable for `durable`
/// @param options   see PageOptions
/// @return true if the page of this call was put at `page`, whole. False: `page` is as it was, unless a line says that
///         the file is in place. No other file is left, unless a line says that it could not be removed
/// Diagnostics, each for false:
///   "PublishPage: CALL(PATH) failed (ERROR)."   CALL is a system call. PATH is `textFile`, `page`, its directory, or
///                                               the file in /var/tmp. For the open of that file, 17 (EEXIST) means
///                                               that something was planted
///   "PublishPage: PATH is not a regular file (0xTYPE)."   TYPE as for `CopyFile`
///   "PublishPage: the page in /var/tmp/TextToHtml_PID.tmp is torn (BYTES of BYTES bytes)."   the disk may be full,
///                                               or the text has changed meanwhile
///   a line of `CopyFile`, then "PublishPage: CopyFile(/var/tmp/TextToHtml_PID.tmp, PAGE) failed."
///   "PublishPage: fsync(DIRECTORY) failed (ERROR): the file is in place, but a power cut can undo that."
/// Diagnostics for true and false:
///   "PublishPage: unlink(/var/tmp/TextToHtml_PID.tmp) failed (ERROR)."   it is left
///   the lines of `orv_fileutils::GenHtmlPagefromTextFile` about a move; only the result says whether it matters
/// Threads: any; calls wait for each other. Do not call `orv_fileutils::GenHtmlPagefromTextFile` at the same time. A
/// program that another thread starts meanwhile can inherit the two streams of that function. Stack: 28 KiB.
/// Exceptions: `std::bad_alloc`; then `page` is as it was, and nothing is left.
/// @code
/// if (!orv_safe::PublishPage("/var/tmp/status.txt", "/srv/www/status.html")) return;  // the log says why
/// @endcode
bool PublishPage(const std::string& textFile, const std::string& page, const PageOptions& options = PageOptions());

// ---- Directories

/// Makes the directory `path` and every missing directory above it.
///
/// Unlike `MakeDirPath`, it also makes directories directly below "/" and the current directory, and only a directory
/// at `path` is a success. It opens each directory relative to the one above; links to directories are followed.
/// Another process that makes the same directories at the same time does no harm: both succeed.
///
/// A missing directory above `path` gets `mode` and the permission to write and search for its owner (0300), without
/// which nothing could be made in it; the last one gets `mode`. Both are less the process's file-creation mask, as
/// mkdir(2) does it. The modes of directories that exist are not changed. Nothing is flushed to the medium.
///
/// @param path  path of the directory; a trailing slash is allowed. If it or one of its names is longer than the file
///              system accepts, nothing is made
/// @param mode  permission bits as for mkdir(2), such as 0755
/// @return true if a directory is at `path`. False: directories that were made before the failure stay, also after a
///         kill or an exception; the next call continues from there
/// Diagnostics, one line for each false; PATH is `path` or a beginning of it:
///   "MakeDirectory: open(PATH) failed (ERROR)."    20 (ENOTDIR): not a directory; 36 (ENAMETOOLONG): `path` is too
///                                                  long; 2 (ENOENT): a link that leads nowhere, or `path` is empty
///   "MakeDirectory: mkdir(PATH) failed (ERROR)."   36 (ENAMETOOLONG): the last name of PATH is too long
/// Threads: any. Exceptions: `std::bad_alloc`.
/// @code
/// if (!orv_safe::MakeDirectory("/var/tmp/orv-spool/in", 0750)) return;  // the log says why
/// @endcode
bool MakeDirectory(const std::string& path, unsigned int mode);

/// A file in a list of `ListFiles`.
struct ListedFile {
    std::string name;          ///< its name, after the path of the directory if that was asked for
    int64_t bytes;             ///< its size; 0 unless the status was asked for
    int64_t modifiedSeconds;   ///< the time of its last change, in seconds since 1970; 0 unless asked for
    long modifiedNanoseconds;  ///< the part of that time below a second; 0 unless asked for

    ListedFile() : bytes(0), modifiedSeconds(0), modifiedNanoseconds(0)
    {
    }
};

/// What `ListFiles` does beyond listing the names of files.
struct ListOptions {
    bool withDirectory;  ///< puts the path of the directory and, unless that ends in one, a "/" before each name
    bool followLinks;    ///< also lists links to regular files, by the names of the links; the status is the file's
    bool status;         ///< also reads the size and the time of each file

    ListOptions() : withDirectory(false), followLinks(false), status(false)
    {
    }
};

/// Lists the regular files of one directory, not of its subdirectories, sorted by byte value.
///
/// Unlike `GetDirFileList`, it looks up the type of an entry if the file system does not record it, follows links on
/// request, and either gives the whole list or changes nothing. The patterns have the same rules.
///
/// A file that is made, renamed or removed during the call may or may not be in the list. With `status`, a file that is
/// removed before its status is read is left out. With `followLinks`, so is a link that leads nowhere.
///
/// @param directory  path of the directory
/// @param include    list only names that match; "" lists all names
/// @param exclude    do not list names that match, even if they match `include`; "" excludes no name
/// @param list       is replaced by the files found, if the result is true; otherwise it stays as it was
/// @param options    see `ListOptions`; without it only names are listed
/// @return true if the directory was read to its end and every status that was needed was read
/// Diagnostics, one line for each false:
///   "ListFiles: opendir(DIRECTORY) failed (ERROR)."
///   "ListFiles: readdir(DIRECTORY) failed (ERROR)."
///   "ListFiles: stat(PATH) failed (ERROR)."   PATH is that of a file in the directory
/// Disk: not changed. Threads: any. Exceptions: `std::bad_alloc`; the list stays as it was, nothing stays open.
/// @code
/// orv_safe::ListOptions options;
/// options.status = true;
/// std::vector<orv_safe::ListedFile> logs;
/// if (!orv_safe::ListFiles("/var/log", "*.log", "", logs, options)) return;
/// int64_t bytes = 0;
/// for (std::size_t i = 0; i < logs.size(); ++i) bytes += logs[i].bytes;
/// @endcode
bool ListFiles(const std::string& directory, const std::string& include, const std::string& exclude,
               std::vector<ListedFile>& list, const ListOptions& options = ListOptions());

// ---- Settings

/// Reads a file of name-value lines into a map, wholly or not at all.
///
/// The lines have the rules of `orv_fileutils::ReadNameValueFromFile`. Unlike that function, this one reads the file to
/// its end before it changes the map, and a directory, a read error and a lack of memory are failures.
///
/// @param path       path of the file. A device or a FIFO is read to its end, too
/// @param settings   receives the entries. If a name occurs more than once, the last line wins; it also replaces an
///                   entry from before the call. Other entries are kept. After false, the map is as it was
/// @param delimiter  byte that ends a name
/// @param comment    beginning of a comment line; empty if there are no comments
/// @return true if the file was read to its end and all its entries are in the map
/// Diagnostics, one line for each false:
///   "ReadSettings: open(PATH) failed (ERROR)."
///   "ReadSettings: read(PATH) failed (ERROR)."   21 (EISDIR): a directory
///   "ReadSettings: new(PATH) failed (ERROR)."    12 (ENOMEM): no memory
/// Disk: not changed. Threads: any. Exceptions: none.
/// @code
/// std::map<std::string, std::string> settings;
/// settings["port"] = "80";  // if the file does not say otherwise
/// if (!orv_safe::ReadSettings("/etc/app.conf", settings)) return;
/// @endcode
bool ReadSettings(const std::string& path, std::map<std::string, std::string>& settings, char delimiter = '=',
                  const std::string& comment = "#");

/// A line of a file of settings that may not mean what its author wanted.
struct SettingsFinding {
    /// What is odd about the line.
    enum Kind {
        kByteOrderMark,     ///< the file begins with U+FEFF; `text` is the first line
        kNotUtf8,           ///< `text` is the line
        kControlCharacter,  ///< also in comments; not tabs, nor white space at the ends; `text` is the first one
        kSection,           ///< a line in brackets; `text` is the line
        kNoDelimiter,       ///< the line is a name with an empty value; `text` is the name
        kEmptyName,         ///< `text` is the line
        kDuplicateName,     ///< the name is on an earlier line, too; `text` is the name
        kQuotes,            ///< quotation marks at both ends, which are part of the value; `text` is the value
        kTrailingComment    ///< the value contains the comment prefix after white space; `text` is what begins there
    };

    Kind kind;         ///< what is odd about the line
    long line;         ///< number of the line, from 1
    std::string text;  ///< depends on the kind; white space at its ends is removed, except for the first kind
    long firstLine;    ///< for a duplicate name: number of the first line with that name; otherwise 0

    SettingsFinding() : kind(kByteOrderMark), line(0), firstLine(0)
    {
    }
};

/// Looks for lines in a file of settings that may not mean what their author wanted.
///
/// @param path       path of the file
/// @param findings   is replaced by the findings in the order of the lines, if the result is true; otherwise it stays
///                   as it was. One line can have several; of each kind it has at most one
/// @param delimiter  as for `ReadSettings`
/// @param comment    as for `ReadSettings`
/// @return true if the file was read to its end, whatever was found
/// Diagnostics, one line for each false:
///   "CheckSettings: open(PATH) failed (ERROR)."
///   "CheckSettings: read(PATH) failed (ERROR)."
///   "CheckSettings: new(PATH) failed (ERROR)."
/// Disk: not changed. Threads: any. Exceptions: none.
/// @code
/// std::vector<orv_safe::SettingsFinding> findings;
/// if (!orv_safe::CheckSettings("/etc/app.conf", findings)) return;
/// for (std::size_t i = 0; i < findings.size(); ++i) {
///     std::string note = orv_safe::SettingsFindingText(findings[i].kind);
/// }
/// @endcode
bool CheckSettings(const std::string& path, std::vector<SettingsFinding>& findings, char delimiter = '=',
                   const std::string& comment = "#");

/// Describes a kind of finding: what is odd, and what to do. The text is in English, without a full stop.
///
/// @param kind  a kind of `SettingsFinding`
/// @return a text that is never freed; "" for a number that is not a kind
/// Diagnostics: none. Disk: not changed. Threads: any. Exceptions: none.
/// @code
/// std::string text = orv_safe::SettingsFindingText(orv_safe::SettingsFinding::kQuotes);
/// @endcode
const char* SettingsFindingText(SettingsFinding::Kind kind);

/// How `WriteSettings` and `RemoveSettings` write.
struct SettingsOptions {
    bool durable;  ///< flushes file and directory to the medium, so that a power cut does not undo a success

    SettingsOptions() : durable(true)
    {
    }
};

/// Changes values in a file of name-value lines, and leaves the rest of it byte for byte as it is.
///
/// A value that changes is replaced in its line: indentation, blanks around the delimiter and the line's end stay. If a
/// name occurs more than once, its last line changes, which is the one that readers take. New names are added at the
/// end, as NAME, delimiter, VALUE, each on a line that ends as the first line of the file does. Comments and the order
/// of the lines stay.
///
/// The new text is written to a file beside the old one, which it then replaces in one step: readers see the old or the
/// new file. It keeps the permissions and, where the system allows it, owner and group; otherwise a line says so, and a
/// new group may do no more than all others. Access lists and extended attributes are not kept. If `path` is a symbolic
/// link, the file that it leads to is replaced, and the link stays. Of two hard links only this one is replaced. If no
/// value changes, nothing is written.
///
/// The file is read first: of two programs that change it at the same time, one may undo the change of the other.
///
/// @param path       path of a regular file. A missing one is made, with mode 0666 less the process's mask
/// @param changes    names and their new values. Refused, before anything is touched, is what `ReadSettings` would not
///                   read back: an empty name, a line feed, white space at an end, a name with the delimiter or with
///                   the comment prefix at its beginning
/// @param delimiter  as for `ReadSettings`
/// @param comment    as for `ReadSettings`
/// @param options    see `SettingsOptions`
/// @return true if a reader gets all changes; if `durable`, also after a power cut. False: the file is as it was,
///         unless the line is that of the directory's fsync. A kill or a power cut leaves the old or the new file and
///         perhaps a file ".orv_" with 16 hexadecimal digits
/// Diagnostics, one line for each false; FILE is `path` or the file that it leads to, STAGED the file beside it:
///   "WriteSettings: set(PATH, NAME) failed (ERROR)."   22 (EINVAL): this name or its value is refused
///   "WriteSettings: open(PATH) failed (ERROR)."        116 (ESTALE): somebody replaced the file during the call
///   "WriteSettings: FILE is not a regular file (0xTYPE)."
///   "WriteSettings: CALL(FILE) failed (ERROR)."        CALL: open (of the directory), readlinkat, fstatat, fstat,
///                                                      read, openat, write, fchmod, fsync, close, linkat, renameat
///   "WriteSettings: CALL(STAGED) failed (ERROR)."      CALL: openat, linkat, unlinkat; after unlinkat STAGED is left
///   "WriteSettings: new(PATH) failed (ERROR)."         12 (ENOMEM): no memory
///   "WriteSettings: fchown(PATH) failed (ERROR): the new file has another owner or group."   the result is true
///   "WriteSettings: fsync(DIRECTORY) failed (ERROR): the file is in place, but a power cut can undo that."
/// Threads: any. Exceptions: none.
/// @code
/// std::map<std::string, std::string> changes;
/// changes["address"] = "192.0.2.7";
/// if (!orv_safe::WriteSettings("/etc/app.conf", changes)) return;
/// @endcode
bool WriteSettings(const std::string& path, const std::map<std::string, std::string>& changes, char delimiter = '=',
                   const std::string& comment = "#", const SettingsOptions& options = SettingsOptions());

/// Removes names with their values from a file of name-value lines, and leaves the rest of it byte for byte as it is.
///
/// All lines of these names are removed. The file is replaced as by `WriteSettings`.
///
/// @param path       path of a regular file, which must exist
/// @param names      names to remove. A name that the file does not contain is not a failure
/// @param delimiter  as for `ReadSettings`
/// @param comment    as for `ReadSettings`
/// @param options    see `SettingsOptions`
/// @return true if a reader gets none of the names; if `durable`, also after a power cut. False, a kill and a power cut
///         leave what they leave of `WriteSettings`
/// Diagnostics: those of `WriteSettings` except "set", beginning with "RemoveSettings".
/// Threads: any. Exceptions: none.
/// @code
/// std::vector<std::string> names(1, "address");
/// if (!orv_safe::RemoveSettings("/etc/app.conf", names)) return;
/// @endcode
bool RemoveSettings(const std::string& path, const std::vector<std::string>& names, char delimiter = '=',
                    const std::string& comment = "#", const SettingsOptions& options = SettingsOptions());

}  // namespace orv_safe
#pragma GCC visibility pop

#endif  // ORV_SAFE_H
