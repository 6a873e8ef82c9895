#include "explain_table.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace explain {

namespace {

template <typename Matches>
const Error* FindErrorIf(Matches matches)
{
    const std::vector<Error>& errors = Errors();
    const auto found = std::find_if(errors.begin(), errors.end(), matches);
    return found == errors.end() ? nullptr : &*found;
}

// ---- Paths of temporary files

const std::size_t kSuffixBytes = 7;   // "_" and six letters or digits, chosen by mkstemp
const std::size_t kStagedBytes = 21;  // ".orv_" and 16 hexadecimal digits

// Whether the name ends as mkstemp ends it. A date such as _202611 and a word such as _report do not count: mkstemp
// chooses digits alone in one of 50,000 names, and small letters alone in one of 180.
bool IsTemporary(const Values& values)
{
    const std::string& path = values.at("TEMPORARY");
    if (path.size() <= kSuffixBytes || path[path.size() - kSuffixBytes] != '_') {
        return false;
    }
    const std::string random = path.substr(path.size() - kSuffixBytes + 1);
    return IsAll(random, std::isalnum) && !IsAll(random, std::isdigit) && !IsAll(random, std::islower);
}

bool IsTemporaryOfDestination(const Values& values)
{
    const std::string& path = values.at("TEMPORARY");
    const std::string& destination = values.at("DESTINATION");
    return path.size() == destination.size() + kSuffixBytes && path.compare(0, destination.size(), destination) == 0 &&
           path[destination.size()] == '_';
}

// Whether it is the name of a file that orv_safe writes beside its destination.
bool IsStaged(const Values& values)
{
    const std::string& path = values.at("STAGED");
    const std::size_t slash = path.rfind('/');
    const std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
    return name.size() == kStagedBytes && name.compare(0, 5, ".orv_") == 0 && IsAll(name.substr(5), std::isxdigit);
}

}  // namespace

// ---- The library

const std::vector<Form>& LibraryForms()
{
    static const std::vector<Form> forms = {
        {"RenameFileAcrossFs: stat(/var/tmp/TextToHtml_PID.tmp) failed (ERRNO).",
         "the page could not be made in /var/tmp, so there is nothing to put in place", "the old page is unchanged",
         "check that /var/tmp exists, that the program may write to it, and that it has space", "", "2, 13"},
        {"RenameFileAcrossFs: stat(SOURCE) failed (ERRNO).", "SOURCE, the file to move, cannot be looked up",
         "nothing was changed",
         "check the path, and that the program may search the directories above it; if the program changes its working "
         "directory, use an absolute path",
         "", "2, 13"},
        {"RenameFileAcrossFs: /var/tmp/TextToHtml_PID.tmp is not a regular file (0xTYPE).",
         "another user has put TYPE in /var/tmp, under the name of the temporary page",
         "nothing was changed; what was put there is still in /var/tmp",
         "find out who made /var/tmp/TextToHtml_PID.tmp, remove it, and give the program a private /var/tmp; see "
         "security.md"},
        {"RenameFileAcrossFs: SOURCE is not a regular file (0xTYPE).",
         "SOURCE is TYPE, and only regular files are moved", "nothing was changed",
         "name a regular file; mv(1) or rename(2) moves a directory"},
        {"RenameFileAcrossFs: rename(TEMPORARY, DESTINATION) failed (ERRNO).",
         "the content was copied to TEMPORARY, but this file could not be renamed to DESTINATION",
         "the source and DESTINATION are unchanged; TEMPORARY was removed, unless the next line says that this failed",
         "", "DESTINATION", "13, 21, 30", IsTemporaryOfDestination},
        {"RenameFileAcrossFs: rename(SOURCE, DESTINATION) failed (ERRNO).", "SOURCE cannot be moved to DESTINATION",
         "both files are unchanged", "", "DESTINATION", "2, 13, 21, 30"},
        {"RenameFileAcrossFs: unlink(SOURCE) failed (116).",
         "the content was copied to the destination, but SOURCE was not removed, because this name no longer leads to "
         "the file that was there when the call began. Either SOURCE is another name of the file that was just put in "
         "place (through a bind mount or an overlay), or somebody replaced the file during the move, or the inode "
         "numbers of its file system do not last",
         "the content is at the destination; SOURCE is still there. The function returned true",
         "find out whether both names are one file: `findmnt --target SOURCE` shows whether a bind mount or an overlay "
         "connects them. If they are one file, do nothing. Otherwise compare the contents, then remove SOURCE by hand"},
        {"RenameFileAcrossFs: unlink(TEMPORARY) failed (ERRNO).",
         "the move failed, as the line before this one says, and its temporary file TEMPORARY could not be removed",
         "the source and the destination are unchanged; TEMPORARY is left",
         "remove TEMPORARY. If the line before this one reports no failure of a move, TEMPORARY is not a temporary "
         "file "
         "but the source: its content was copied, so compare it with the destination before you remove it",
         "", "13, 30", IsTemporary},
        {"RenameFileAcrossFs: unlink(SOURCE) failed (ERRNO).",
         "the content was copied to the destination, but SOURCE could not be removed",
         "the content is at the destination; SOURCE is still there. The function returned true",
         "remove SOURCE, and let the program write to its directory", "", "1, 13, 30"},
        {"RenameFileAcrossFs: open(SOURCE) failed (ERRNO).",
         "SOURCE must be copied to another file system, but cannot be opened", "both files are unchanged", "", "SOURCE",
         "13, 24"},
        {"RenameFileAcrossFs: mkstemp(TEMPORARY) failed (36).",
         "the temporary file TEMPORARY could not be made beside the destination, because its name is too long",
         "both files are unchanged",
         "choose a name of at most 248 bytes for the destination, because the temporary file has 7 bytes more"},
        {"RenameFileAcrossFs: mkstemp(TEMPORARY) failed (ERRNO).",
         "the temporary file TEMPORARY could not be made beside the destination", "both files are unchanged", "",
         "TEMPORARY", "2, 13, 28, 30"},
        {"RenameFileAcrossFs: write() failed (ASKED, -1, ERRNO).",
         "the copy on the destination's file system could not be written",
         "both files are unchanged; the temporary file was removed, unless the next line says that this failed", "", "",
         "27, 28, 122"},
        {"RenameFileAcrossFs: write() failed (ASKED, WRITTEN, ERRNO).",
         "only WRITTEN of ASKED bytes could be written to the destination's file system. It is full, or a limit was "
         "reached",
         "both files are unchanged; the temporary file was removed, unless the next line says that this failed",
         "free space on the destination's file system, and move again", "", "", nullptr, /*errorIsStale=*/true},
        {"RenameFileAcrossFs: chmod(TEMPORARY, MODE) failed (ERRNO).",
         "the content was copied to TEMPORARY, but the mode MODE could not be set",
         "both files are unchanged; TEMPORARY was removed, unless the next line says that this failed",
         "mount the destination so that the program may change owner and mode, or use CopyFile, which does not set "
         "modes. For 5 (EIO), check the kernel's log (dmesg) for errors of the medium",
         "", "1, 5"},

        {"DoMakeDirPath: malloc failure (dirCopy)", "memory ran out before a directory was made", "nothing was made",
         "free memory; look for a memory leak in the program"},
        {"DoMakeDirPath: Can't make directory in PARENT",
         "the topmost missing directory would be directly in PARENT, where the library makes no directories. "
         "DoMakeDirPath refuses such a path even if it exists; an empty path counts as one in the current directory",
         "nothing was made", "make the topmost directory when the system is installed; use absolute paths"},
        {"DoMakeDirPath: could not create subdirectory PATH due to error: TEXT", "the directory PATH cannot be made",
         "directories above PATH that were made before stay", "", "PATH"},

        {"MakeDirPath: can't make path of unusual size: LENGTH",
         "the path has LENGTH bytes, and MakeDirPath accepts at most 1024", "nothing was made",
         "use a shorter path, or a relative one"},
        {"MakeDirPath: Create 'PATH' directory failed.",
         "the directory PATH could not be made; the line of DoMakeDirPath before this one says why",
         "directories above PATH that were made before stay", "see the line before this one"},
        {"MakeDirPath: Failed to chmod on 'PATH': errno: ERRNO",
         "the directory PATH is there, but its mode could not be set",
         "PATH has the mode that it had. The function returned true",
         "set the mode as the owner of PATH, or call MakeDirPath without applyMode", "", "1, 30"},

        {"GetDirFileList: No directory specified.", "the program asked for a list of files without naming a directory",
         "nothing was changed", "name a directory; often a setting of the program is missing"},
        {"GetDirFileList: Error opening directory folder 'DIRECTORY', errno: ERRNO",
         "DIRECTORY cannot be opened. The line is written only if the caller asked for it", "nothing was changed", "",
         "DIRECTORY", "2, 13, 20, 24"},
        {"GetDirFileList: readdir_r failed for directory: DIRECTORY, error: ERRNO",
         "DIRECTORY could not be read to its end, so the list contains only the names read so far, unsorted",
         "nothing was changed",
         "discard the list, and read DIRECTORY again. If that fails, check the kernel's log (dmesg) for errors of the "
         "medium",
         "", "5"},

        {"GenHtmlPagefromTextFile: RenameFileAcrossFs(/var/tmp/TextToHtml_PID.tmp, PAGE) failed.",
         "the finished page could not be moved to PAGE; the line of RenameFileAcrossFs before this one says why. "
         "Without such a line, the temporary page could not be read",
         "PAGE is unchanged, and the temporary page /var/tmp/TextToHtml_PID.tmp may be left",
         "see the line before this one. The next call of the same process uses the temporary page again; remove it "
         "after "
         "the process has ended"},

        {"ReadNameValueFromFile: Unable to open file \"PATH\"", "the settings in PATH cannot be read",
         "nothing was changed; the program keeps the settings that it had",
         "check that PATH exists and that the program may read it; `orvfile get` with this path prints the reason"},
        {"ReadNameValueFromFile: Error processing line NUMBER in file \"PATH\".  No delimiter 'DELIMITER' found.",
         "memory ran out at line NUMBER of PATH. A line that only lacks the delimiter 'DELIMITER' is a name with an "
         "empty value, "
         "and is not reported",
         "nothing was changed; the program has the settings of the earlier lines only",
         "free memory; look for a memory leak in the program. `orvfile get --lint` lists lines without the delimiter"},
    };
    return forms;
}

const std::vector<std::string>& LibraryFunctions()
{
    static const std::vector<std::string> functions = {
        "RenameFileAcrossFs", "DoMakeDirPath",           "MakeDirPath",
        "GetDirFileList",     "GenHtmlPagefromTextFile", "ReadNameValueFromFile"};
    return functions;
}

// ---- The safe companion

const std::vector<Form>& NoteForms()
{
    static const std::vector<Form> forms = {
        {"FUNCTION: fchmod(DESTINATION) failed (ERROR): the mode is not kept.",
         "the file system of DESTINATION cannot record the mode, or the program may not set it",
         "DESTINATION has the content of the source, but another mode, unless a later line reports a failure",
         "do nothing, unless the mode matters; then choose another file system, or run as the owner", "", "1, 95"},
        {"FUNCTION: fchown(DESTINATION) failed (ERROR): owner and group are not kept.",
         "the file system of DESTINATION cannot record the owner, or the program may not set it",
         "DESTINATION has the content of the source, but belongs to the user of the program, unless a later line "
         "reports a failure",
         "do nothing, unless the owner matters; then choose another file system, or run as root", "", "1"},
        {"FUNCTION: CALL(DESTINATION) failed (ERROR): extended attributes are not kept.",
         "the extended attributes of the source could not be read",
         "DESTINATION has the content of the source, but none of the attributes, unless a later line reports a failure",
         "do nothing, unless the attributes matter"},
        {"FUNCTION: CALL(DESTINATION) failed (ERROR): the attribute NAME is not kept.",
         "the file system of DESTINATION cannot record the extended attribute NAME, or the program may not set it",
         "DESTINATION has the content of the source, but not this attribute, unless a later line reports a failure",
         "do nothing, unless the attribute matters; then choose another file system, or run as root", "", "1, 95"},
        {"FUNCTION: CALL(DESTINATION) failed (ERROR): times are not kept.",
         "the file system of DESTINATION cannot record the times",
         "DESTINATION has the content of the source, but the time of the copy, unless a later line reports a failure",
         "do nothing, unless the times matter"},
        {"FUNCTION: fchown(PATH) failed (ERROR): the new file has another owner or group.",
         "the program may not give the new file the owner and the group of the old one",
         "PATH has the new content, and belongs to the user of the program",
         "do nothing, unless the owner matters; then run the program as the owner of the file, or as root", "", "1"}};
    return forms;
}

// Of a failed call of orv_safe only the last form is general: what it means is in SafeCalls, what is on the disk in
// SafeFunctions.
const std::vector<Form>& SafeForms()
{
    static const std::vector<Form> forms = {
        {"FUNCTION: fsync(DIRECTORY) failed (ERROR): the file is in place, but a power cut can undo that.",
         "the file is in place, but its directory DIRECTORY could not be flushed to the disk",
         "the new file is in place; a power cut can still undo that. After MoveFile to another file system, the source "
         "may also be there",
         "run `sync`, and check the kernel's log (dmesg) for errors of the medium", "", "5"},
        {"MoveFile: unlinkat(SOURCE) failed (116, TEXT): the content is in place, and the source is kept.",
         "SOURCE was changed or replaced while it was moved, so it was not removed",
         "the content that SOURCE had is at the destination; SOURCE is still there",
         "look at both files, then remove the one that is not needed"},
        {"MoveFile: CALL(PATH) failed (ERROR): the content is in place, and the source is kept.",
         "the content was copied to the destination, but the source could not be removed (PATH)",
         "the content is at the destination; the source is still there",
         "remove the source by hand, and let the program write to its directory", "", "1, 13, 30"},
        {"MoveFile: fstatat(DESTINATION) failed (116, TEXT): another file is there, and the source is kept.",
         "another program replaced DESTINATION just after the content was put there, so the source was not removed",
         "DESTINATION is the file of the other program; the source is still there",
         "look at both files, then move the source again"},
        {"FUNCTION: PATH is not a regular file (0xTYPE).", "PATH is TYPE, not a regular file", "nothing was changed",
         "name a regular file"},
        {"FUNCTION: what was written for DESTINATION differs from SOURCE after byte OFFSET.",
         "the copy for DESTINATION was read back, and differs from SOURCE after byte OFFSET: the medium is faulty, or "
         "SOURCE was written meanwhile",
         "SOURCE and DESTINATION are as they were; the copy was removed",
         "run this again. If it fails again, check the medium, and replace it"},
        {"MoveFile: SOURCE and DESTINATION are the same file.",
         "SOURCE and DESTINATION are two names of one file, so a move would lose it", "nothing was changed",
         "choose another destination"},
        {"PublishPage: the page in /var/tmp/TextToHtml_PID.tmp is torn (HAVE of WANT bytes).",
         "the page in /var/tmp has HAVE bytes, but the page of the text has WANT. The disk of /var/tmp is full, memory "
         "ran out, or the text was changed meanwhile",
         "the old page is as it was; the page in /var/tmp was removed",
         "free space in /var/tmp (`df /var/tmp`), then publish again"},
        {"PublishPage: CopyFile(/var/tmp/TextToHtml_PID.tmp, PAGE) failed.",
         "the page could not be copied to PAGE; the line of CopyFile before this one says why",
         "the old page is as it was, unless the line before this one says that the file is in place",
         "see the line before this one"},
        {"PublishPage: open(/var/tmp/TextToHtml_PID.tmp) failed (17, TEXT).",
         "another user has put something in /var/tmp, under the name of the temporary page",
         "the old page is as it was; what was put there is still in /var/tmp",
         "find out who made /var/tmp/TextToHtml_PID.tmp, and remove it. Give the program a private /var/tmp; see "
         "security.md"},
        {"PublishPage: unlink(/var/tmp/TextToHtml_PID.tmp) failed (ERROR).",
         "the temporary page /var/tmp/TextToHtml_PID.tmp cannot be removed",
         "it is left, and may be removed; whether the page was published does not depend on it", "remove it by hand",
         "", "1, 13"},
        {"FUNCTION: unlinkat(STAGED) failed (ERROR).", "the temporary file STAGED cannot be removed",
         "STAGED is left, and may be removed; what happened to the other files does not depend on it",
         "remove STAGED by hand", "", "13, 30", IsStaged},
        {"FUNCTION: CALL(STAGED) failed (ERROR).",
         "the temporary file STAGED cannot be made, in which the new content would have been written", "", "", "STAGED",
         "13, 28, 30", IsStaged},
        {"FUNCTION: posix_fadvise(PATH) failed (22, TEXT).",
         "this kernel cannot forget what it keeps of a file, so the copy for PATH could not be read back from the disk",
         "", "use a kernel with CONFIG_ADVISE_SYSCALLS, or copy without the comparison (verify, --no-verify)"},
        {"FUNCTION: linkat(PATH) failed (17, TEXT).", "PATH exists, and was not to be replaced",
         "PATH is as it was; nothing else was changed", "choose another destination, or allow that PATH is replaced"},
        {"FUNCTION: renameat(PATH) failed (17, TEXT).", "PATH exists, and was not to be replaced",
         "PATH is as it was; nothing else was changed", "choose another destination, or allow that PATH is replaced"},
        {"FUNCTION: progress(PATH) failed (125, TEXT).", "the program cancelled the copy of PATH", "",
         "run this again, if the copy is wanted"},
        {"WriteSettings: open(PATH) failed (116, TEXT).", "another program replaced PATH during the call",
         "PATH is the file of the other program", "run this again"},
        {"RemoveSettings: open(PATH) failed (116, TEXT).", "another program replaced PATH during the call",
         "PATH is the file of the other program", "run this again"},
        {"FUNCTION: new(PATH) failed (ERROR).", "memory ran out while PATH was read", "nothing was changed",
         "give the program more memory, or the file fewer lines", "", "12"},
        {"WriteSettings: set(PATH, NAME) failed (22, TEXT).",
         "the name NAME or its new value is refused, because a reader of PATH would not get it back: the name is "
         "empty, "
         "contains the delimiter or begins like a comment, or there is a line feed, or white space at an end",
         "PATH is as it was", "choose another name or value"},
        {"SafeMarkupRow: Markup(MARKUP) failed (22, TEXT).",
         "the markup MARKUP contains a character that a text table file cannot contain at this place",
         "the cell is empty", "write this character as a reference without a semicolon, such as &#59 for a semicolon"},
        {"FUNCTION: CALL(PATH) failed (ERROR).", "", "", "", "PATH"},
    };
    return forms;
}

const std::vector<Function>& SafeFunctions()
{
    static const std::vector<Function> functions = {
        {"CopyFile", "the destination is as it was"},
        {"MoveFile", "both files are as they were"},
        {"PublishPage", "the old page is as it was"},
        {"MakeDirectory", "directories that were made before the failure stay; the next call continues from there"},
        {"ListFiles", "nothing was changed"},
        {"ReadSettings", "nothing was changed; the program keeps the settings that it had"},
        {"CheckSettings", "nothing was changed"},
        {"WriteSettings", "the file of settings is as it was"},
        {"RemoveSettings", "the file of settings is as it was"},
        {"SafeMarkupRow", "nothing was changed"},
    };
    return functions;
}

const std::vector<Call>& SafeCalls()
{
    static const std::vector<Call> calls = {
        {"open", "PATH cannot be opened"},
        {"openat", "PATH cannot be opened"},
        {"opendir", "the directory PATH cannot be opened"},
        {"stat", "PATH cannot be looked up"},
        {"fstat", "PATH cannot be looked up"},
        {"fstatat", "PATH cannot be looked up"},
        {"readlinkat", "the link PATH cannot be followed"},
        {"read", "PATH cannot be read"},
        {"pread", "PATH cannot be read"},
        {"readdir", "the directory PATH cannot be read to its end"},
        {"write", "the new file for PATH cannot be written"},
        {"lseek", "the new file for PATH cannot be written"},
        {"ftruncate", "the new file for PATH cannot be written"},
        {"close", "the new file for PATH cannot be written"},
        {"fsync", "PATH cannot be flushed to the disk"},
        {"posix_fadvise", "the copy for PATH cannot be read back from the disk"},
        {"fchmod", "the mode of PATH cannot be set"},
        {"fchown", "the owner of PATH cannot be set"},
        {"linkat", "the file cannot be put at PATH"},
        {"renameat", "the file cannot be put at PATH"},
        {"unlink", "PATH cannot be removed, and is left"},
        {"unlinkat", "PATH cannot be removed, and is left"},
        {"mkdir", "the directory PATH cannot be made"},
        {"progress", "the copy of PATH was cancelled"},
    };
    return calls;
}

// ---- The substitutes for the log

const std::vector<Form>& LogForms()
{
    static const std::vector<Form> forms = {
        {"dlog: out of memory, a report was lost", "a line of the log was lost, because memory ran out",
         "the lost line would have said it", "free memory; look for a memory leak in the program"},
    };
    return forms;
}

// ---- Error numbers

const std::vector<Error>& Errors()
{
    static const char kAccess[] = "get access to PATH and the directories above it, or run as a user who has access";
    static const char kSpace[] = "free space on the file system of PATH, then run this again";
    static const std::vector<Error> errors = {
        {1, "EPERM", "Operation not permitted",
         "the program does not own the file (or its directory has the sticky bit), the file is immutable, or the file "
         "system cannot do it",
         kAccess},
        {2, "ENOENT", "No such file or directory", "the file, or a directory above it, does not exist",
         "check the spelling of PATH, and check that its directory exists"},
        {4, "EINTR", "Interrupted system call", "a signal interrupted the call", "run this again"},
        {5, "EIO", "Input/output error", "the medium failed", kCheckTheMedium},
        {6, "ENXIO", "No such device or address", "the device or the program at the other end is not there",
         "name a regular file"},
        {9, "EBADF", "Bad file descriptor", "another part of the program has closed a file that was in use",
         "look for a close of a wrong descriptor in the program"},
        {11, "EAGAIN", "Resource temporarily unavailable", "the kernel could not do it at once", "run this again"},
        {12, "ENOMEM", "Cannot allocate memory", "the kernel or the program is out of memory", "free memory"},
        {13, "EACCES", "Permission denied", "no permission for the file or a directory above it", kAccess},
        {16, "EBUSY", "Device or resource busy", "the path is a mount point, or is in use",
         "choose another path than PATH"},
        {17, "EEXIST", "File exists", "a file with this name is there already", "choose another path than PATH"},
        {18, "EXDEV", "Invalid cross-device link",
         "the destination is on another file system; the library then copies and does not log this number",
         "choose a destination on the same file system"},
        {19, "ENODEV", "No such device", "the device of the file system is gone",
         "connect the device, then run this again"},
        {20, "ENOTDIR", "Not a directory", "a component of the path is not a directory",
         "a component of PATH is not a directory: correct the path"},
        {21, "EISDIR", "Is a directory", "the path is a directory", "PATH is a directory: name a file in it"},
        {22, "EINVAL", "Invalid argument", "the file system does not accept the name or cannot do this",
         "choose another name, or another file system"},
        {23, "ENFILE", "Too many open files in system", "the system has too many files open",
         "end programs that have many files open"},
        {24, "EMFILE", "Too many open files", "the process has too many files open",
         "look for descriptors that the program never closes, or raise its limit (`ulimit -n`)"},
        {26, "ETXTBSY", "Text file busy", "the file is a program that is running", "end this program first"},
        {27, "EFBIG", "File too large", "the file is larger than a limit or its file system allows",
         "raise the limit (`ulimit -f`), or split the file"},
        {28, "ENOSPC", "No space left on device", "no space left (`df`), or no inodes left (`df -i`)", kSpace},
        {29, "ESPIPE", "Illegal seek", "the file is a pipe, a FIFO or a socket", "name a regular file"},
        {30, "EROFS", "Read-only file system", "the file system is mounted read-only",
         "choose a path on a file system that is mounted writable"},
        {31, "EMLINK", "Too many links", "the file or the directory has as many links as its file system allows",
         "use another directory"},
        {36, "ENAMETOOLONG", "File name too long", "a name has more than 255 bytes, or a path more than 4095",
         "choose a shorter path"},
        {38, "ENOSYS", "Function not implemented", "this kernel cannot do it", "use a newer kernel"},
        {39, "ENOTEMPTY", "Directory not empty", "the directory contains files", "choose another path than PATH"},
        {40, "ELOOP", "Too many levels of symbolic links", "symbolic links form a loop",
         "remove the symbolic links in PATH that form a loop"},
        {61, "ENODATA", "No data available", "the file does not have this attribute", "run this again"},
        {75, "EOVERFLOW", "Value too large for defined data type",
         "the file is over 2 GiB or has a date after 2038, and the library was built without `ORV_LARGE_FILES`",
         "build the library with `ORV_LARGE_FILES`"},
        {84, "EILSEQ", "Invalid or incomplete multibyte or wide character",
         "the name has bytes that its file system cannot store", "choose another name than PATH"},
        {95, "EOPNOTSUPP", "Operation not supported", "the file system cannot do this", "use another file system"},
        {107, "ENOTCONN", "Transport endpoint is not connected", "the program that serves this file system has ended",
         "unmount the file system, and mount it again"},
        {110, "ETIMEDOUT", "Connection timed out", "the server of a network file system does not answer",
         "check the network and the server"},
        {116, "ESTALE", "Stale file handle",
         "the name no longer leads to the file that was in use; somebody replaced or removed it", "compare both names"},
        {117, "EUCLEAN", "Structure needs cleaning", "the file system is damaged",
         "unmount the file system, and repair it with `fsck`"},
        {121, "EREMOTEIO", "Remote I/O error", "the medium failed", kCheckTheMedium},
        {122, "EDQUOT", "Disk quota exceeded", "the user is over quota", kSpace},
        {123, "ENOMEDIUM", "No medium found", "the medium was removed", "insert the medium, then run this again"},
        {125, "ECANCELED", "Operation canceled", "the program cancelled it", "run this again"},
    };
    return errors;
}

const Error* FindError(int number)
{
    return FindErrorIf([number](const Error& error) { return error.number == number; });
}

const Error* FindError(const std::string& text)
{
    return FindErrorIf([&text](const Error& error) { return text == error.text; });
}

}  // namespace explain
