// A program that loads the library at run time, calls functions by the names of their symbols and unloads it again.
// This program defines __dlog_printf (tests/support) and is not linked with the libraries.

#include "LxFileUtils.h"
#include "artifacts/abi/loaded_library.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <fstream>
#include <list>
#include <map>
#include <string>
#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

namespace {

// Returns the symbol of a function, from the reviewed list of exports.
std::string SymbolOf(const std::string& function)
{
    const std::string qualifiedName = "orv_fileutils::" + function;
    std::ifstream list(ORV_EXPORTS_LIST);
    std::string symbol;
    for (std::string name; list >> symbol && std::getline(list >> std::ws, name);) {
        const char next = name.size() > qualifiedName.size() ? name[qualifiedName.size()] : '\0';
        if (name.compare(0, qualifiedName.size(), qualifiedName) == 0 && (next == '(' || next == '[')) {
            return symbol;
        }
    }
    ADD_FAILURE() << qualifiedName << " is not in " << ORV_EXPORTS_LIST;
    return "";
}

// A function of the library. The program uses only the types of the functions in the header.
template <typename Function>
Function* Find(const LoadedLibrary& library, const std::string& name)
{
    void* const address = library.Find(SymbolOf(name));
    EXPECT_NE(nullptr, address) << name;
    return reinterpret_cast<Function*>(address);
}

#define ORV_FIND(library, name) Find<decltype(orv_fileutils::name)>(library, #name)

class UnloadTest : public OrvTest {
protected:
    // The test cannot continue without the functions: calling a null pointer would crash it.
    void FileUtilitiesWork(const LoadedLibrary& library)
    {
        auto* const fileExists = ORV_FIND(library, FileExists);
        auto* const copyFile = ORV_FIND(library, CopyFile);
        auto* const renameFile = ORV_FIND(library, RenameFileAcrossFs);
        ASSERT_TRUE(fileExists && copyFile && renameFile);
        const std::string file = dir_.Write("file", "abc");

        EXPECT_EQ(0, copyFile(file, dir_ / "copy"));
        EXPECT_TRUE(renameFile(dir_ / "copy", dir_ / "moved"));
        EXPECT_TRUE(fileExists((dir_ / "moved").c_str()));
        EXPECT_FALSE(fileExists((dir_ / "copy").c_str()));

        EXPECT_EQ("abc", dir_.Read("moved"));
    }

    void DirectoryUtilitiesWork(const LoadedLibrary& library)
    {
        auto* const doMakeDirPath = ORV_FIND(library, DoMakeDirPath);
        auto* const makeDirPath = ORV_FIND(library, MakeDirPath);
        auto* const getDirFileList = ORV_FIND(library, GetDirFileList);
        ASSERT_TRUE(doMakeDirPath && makeDirPath && getDirFileList);

        EXPECT_TRUE(doMakeDirPath((dir_ / "a/b").c_str(), 0755));
        EXPECT_TRUE(makeDirPath((dir_ / "a/b/c").c_str(), 0750, /*applyMode=*/true));
        dir_.Write("a/b/c/2.log", "");
        dir_.Write("a/b/c/1.log", "");
        std::list<std::string> names;
        EXPECT_TRUE(getDirFileList((dir_ / "a/b/c").c_str(), "*.log", "", names, /*withDirPath=*/false,
                                   /*clearList=*/true, /*logOpenError=*/true));
        EXPECT_FALSE(getDirFileList("", "", "", names, false, /*clearList=*/false, true));

        EXPECT_THAT(names, ElementsAre("1.log", "2.log"));
        ExpectReports({messages::kListNoDirectory()});
    }

    void TextUtilitiesWork(const LoadedLibrary& library)
    {
        auto* const delimiter = ORV_FIND(library, TextFileTableDelimter);
        auto* const formatRow = ORV_FIND(library, AddTextFileFormattedRow);
        auto* const genHtmlPage = ORV_FIND(library, GenHtmlPagefromTextFile);
        auto* const readNameValue = ORV_FIND(library, ReadNameValueFromFile);
        ASSERT_TRUE(delimiter && formatRow && genHtmlPage && readNameValue);
        std::vector<std::string> cells = {"Port 1", "up"};
        std::map<std::string, std::string> settings;

        const std::string table = dir_.Write("table", formatRow(cells) + delimiter());
        genHtmlPage(table.c_str(), (dir_ / "page").c_str());
        EXPECT_TRUE(readNameValue(dir_.Write("settings", "name = value\n"), settings, '=', "#"));

        EXPECT_EQ("Port 1:up;\n", dir_.Read("table"));
        EXPECT_THAT(dir_.Read("page"), HasSubstr("<tr><td>Port 1</td><td>up</td></tr>"));
        EXPECT_THAT(settings, ElementsAre(Pair("name", "value")));
    }
};

TEST_F(UnloadTest, LeavesNothingMappedAfterEachOfAHundredRounds)
{
    const std::vector<std::string> descriptors = OpenDescriptors();
    ASSERT_THAT(MappedProductLibraries(), ElementsAre()) << "this program must not be linked with the libraries";

    for (int round = 1; round <= 100 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        {
            const LoadedLibrary library(ORV_LIBRARY);
            ASSERT_EQ("", library.Error());
            EXPECT_THAT(MappedProductLibraries(), Contains(HasSubstr("/libOrvFileUtils.so.0")));
            EXPECT_THAT(MappedProductLibraries(), Contains(HasSubstr("/libOrvStrUtils.so.0")));
            FileUtilitiesWork(library);
            DirectoryUtilitiesWork(library);
            TextUtilitiesWork(library);
        }
        EXPECT_THAT(MappedProductLibraries(), ElementsAre());
        EXPECT_EQ(descriptors, OpenDescriptors());
    }
}

}  // namespace
