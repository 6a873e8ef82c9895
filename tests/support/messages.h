// The lines that the library writes to the log. data/messages.txt contains an example of each.
#ifndef ORV_TESTS_MESSAGES_H
#define ORV_TESTS_MESSAGES_H

#include <string>
#include <type_traits>
#include <vector>

namespace messages {

constexpr int kSeverity = 3;
constexpr char kSource[] = "LxFileUtils.cpp";
constexpr char kAnySuffix[] =
    "_??????";  // in an expected path: matches the characters that mkstemp puts in place of "_XXXXXX"

// A line that a test expects: the format that is passed to __dlog_printf, and the text that printf makes of it.
struct Report {
    std::string format;
    std::string text;
};

struct Message {
    const char* name;
    const char* function;  // the first argument of the format
    const char* format;

    // Returns the line with these arguments after the name of the function. Numbers are written in decimal; pass text
    // for other forms.
    template <typename... Arguments>
    Report operator()(const Arguments&... arguments) const
    {
        return With({TextOf(arguments)...});
    }

    Report With(std::vector<std::string> arguments) const;

private:
    template <typename Argument>
    static std::string TextOf(const Argument& argument)
    {
        if constexpr (std::is_arithmetic_v<Argument>) {
            return std::to_string(argument);
        } else {
            return argument;
        }
    }
};

constexpr Message kRenameStat{"RenameStat", "RenameFileAcrossFs", "%s: stat(%s) failed (%i)."};
constexpr Message kRenameNotRegular{"RenameNotRegular", "RenameFileAcrossFs", "%s: %s is not a regular file (0x%x)."};
constexpr Message kRenameRename{"RenameRename", "RenameFileAcrossFs", "%s: rename(%s, %s) failed (%i)."};
constexpr Message kRenameUnlink{"RenameUnlink", "RenameFileAcrossFs", "%s: unlink(%s) failed (%i)."};
constexpr Message kRenameOpen{"RenameOpen", "RenameFileAcrossFs", "%s: open(%s) failed (%i)."};
constexpr Message kRenameMkstemp{"RenameMkstemp", "RenameFileAcrossFs", "%s: mkstemp(%s) failed (%i)."};
constexpr Message kRenameWrite{"RenameWrite", "RenameFileAcrossFs", "%s: write() failed (%zi, %zi, %i)."};
constexpr Message kRenameChmod{"RenameChmod", "RenameFileAcrossFs", "%s: chmod(%s, %03o) failed (%i)."};
constexpr Message kWorkerMalloc{"WorkerMalloc", "DoMakeDirPath", "%s: malloc failure (dirCopy)"};
constexpr Message kWorkerParent{"WorkerParent", "DoMakeDirPath", "%s: Can't make directory in %s"};
constexpr Message kWorkerMkdir{"WorkerMkdir", "DoMakeDirPath", "%s: could not create subdirectory %s due to error: %s"};
constexpr Message kMakeSize{"MakeSize", "MakeDirPath", "%s: can't make path of unusual size: %d"};
constexpr Message kMakeFailed{"MakeFailed", "MakeDirPath", "%s: Create '%s' directory failed."};
constexpr Message kMakeChmod{"MakeChmod", "MakeDirPath", "%s: Failed to chmod on '%s': errno: %d"};
constexpr Message kListNoDirectory{"ListNoDirectory", "GetDirFileList", "%s: No directory specified."};
constexpr Message kListOpen{"ListOpen", "GetDirFileList", "%s: Error opening directory folder '%s', errno: %d"};
constexpr Message kListRead{"ListRead", "GetDirFileList", "%s: readdir_r failed for directory: %s, error: %u"};
constexpr Message kPageMove{"PageMove", "GenHtmlPagefromTextFile", "%s: RenameFileAcrossFs(%s, %s) failed."};
constexpr Message kNameValueOpen{"NameValueOpen", "ReadNameValueFromFile", "%s: Unable to open file \"%s\""};
constexpr Message kNameValueLine{"NameValueLine", "ReadNameValueFromFile",
                                 "%s: Error processing line %d in file \"%s\".  No delimiter '%c' found."};

constexpr const Message* kAll[] = {&kRenameStat,   &kRenameNotRegular, &kRenameRename,    &kRenameUnlink,
                                   &kRenameOpen,   &kRenameMkstemp,    &kRenameWrite,     &kRenameChmod,
                                   &kWorkerMalloc, &kWorkerParent,     &kWorkerMkdir,     &kMakeSize,
                                   &kMakeFailed,   &kMakeChmod,        &kListNoDirectory, &kListOpen,
                                   &kListRead,     &kPageMove,         &kNameValueOpen,   &kNameValueLine};

// Whether the text is equal to the expected one, in which each "?" also matches one letter or digit.
bool IsLike(const std::string& expected, const std::string& text);

}  // namespace messages

#endif  // ORV_TESTS_MESSAGES_H
