// The formats of all diagnostic lines of the library, written down a second time: what the tests compare with.
#ifndef ORV_TESTS_MESSAGES_H
#define ORV_TESTS_MESSAGES_H

namespace messages {

constexpr char kRenameStat[] = "%s: stat(%s) failed (%i).";
constexpr char kRenameNotRegular[] = "%s: %s is not a regular file (0x%x).";
constexpr char kRenameRename[] = "%s: rename(%s, %s) failed (%i).";
constexpr char kRenameUnlink[] = "%s: unlink(%s) failed (%i).";
constexpr char kRenameOpen[] = "%s: open(%s) failed (%i).";
constexpr char kRenameMkstemp[] = "%s: mkstemp(%s) failed (%i).";
constexpr char kRenameWrite[] = "%s: write() failed (%zi, %zi, %i).";
constexpr char kRenameChmod[] = "%s: chmod(%s, %03o) failed (%i).";
constexpr char kWorkerMalloc[] = "%s: malloc failure (dirCopy)";
constexpr char kWorkerParent[] = "%s: Can't make directory in %s";
constexpr char kWorkerMkdir[] = "%s: could not create subdirectory %s due to error: %s";
constexpr char kMakeSize[] = "%s: can't make path of unusual size: %d";
constexpr char kMakeFailed[] = "%s: Create '%s' directory failed.";
constexpr char kMakeChmod[] = "%s: Failed to chmod on '%s': errno: %d";
constexpr char kListNoDirectory[] = "%s: No directory specified.";
constexpr char kListOpen[] = "%s: Error opening directory folder '%s', errno: %d";
constexpr char kListRead[] = "%s: readdir_r failed for directory: %s, error: %u";
constexpr char kPageMove[] = "%s: RenameFileAcrossFs(%s, %s) failed.";
constexpr char kNameValueOpen[] = "%s: Unable to open file \"%s\"";
constexpr char kNameValueLine[] = "%s: Error processing line %d in file \"%s\".  No delimiter '%c' found.";

}  // namespace messages

#endif  // ORV_TESTS_MESSAGES_H
