// Bytes above 0x7F, for which plain char is negative on one machine and positive on another. One file contains the
// results of the library for them, which must be the same bytes on every machine.
#include "LxFileUtils.h"
#include "LxStringUtils.h"
#include "support/cases.h"
#include "support/orv_test.h"

#include <cstdio>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace {

std::string Hex(const std::string& bytes)
{
    std::string hex;
    for (const char byte : bytes) {
        char digits[3];
        (void)std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        hex += digits;
    }
    return hex;
}

template <typename Strings>
std::string HexOfEach(const Strings& texts)
{
    std::string hex;
    for (const std::string& text : texts) {
        hex += " " + Hex(text);
    }
    return hex + "\n";
}

class PortabilityTest : public OrvTest {
protected:
    // Returns a line for each operation of the library with all byte values or with the 128 high ones.
    std::string Transcript() const
    {
        return Strings() + Listing() + Tables() + NameValues();
    }

private:
    static std::string Strings()
    {
        std::string trimmed = AllBytes() + "x" + AllBytes();
        LxStringUtils::Trim(trimmed);
        std::string transcript = "trim " + Hex(trimmed) + "\n";
        for (const char byte : AllBytes().substr(128)) {
            const std::string one(1, byte);
            std::vector<std::string> pieces;
            LxStringUtils::Split(AllBytes(), byte, pieces);
            transcript += "byte " + Hex(one) + ", split into " + std::to_string(pieces.at(0).size()) + " and " +
                          std::to_string(pieces.size() == 2 ? pieces.at(1).size() : 0) + ", matches";
            for (const char other : AllBytes()) {
                if (LxStringUtils::WildcardedStringMatch(std::string(1, other), one)) {
                    transcript += " " + Hex(std::string(1, other));
                }
            }
            transcript += LxStringUtils::WildcardedStringMatch(one, "?") ? " and ?\n" : "\n";
        }
        return transcript;
    }

    std::string Listing() const
    {
        for (const char byte : AllBytes()) {
            if (byte != '\0' && byte != '/') {
                dir_.Write("n" + std::string(1, byte), "");
            }
        }
        std::list<std::string> names;
        EXPECT_TRUE(orv_fileutils::GetDirFileList(dir_.Path().c_str(), "n*", nullptr, names, false, true, true));
        return "sorted" + HexOfEach(names);
    }

    std::string Tables() const
    {
        std::vector<std::string> cells = {AllBytes().substr(128), AllBytes().substr(128, 64), AllBytes().substr(192)};
        const std::string row = orv_fileutils::AddTextFileFormattedRow(cells);
        const std::string table = dir_.Write("table", row + orv_fileutils::TextFileTableDelimter());
        orv_fileutils::GenHtmlPagefromTextFile(table.c_str(), (dir_ / "page").c_str());
        return "row " + Hex(row) + "\npage " + Hex(dir_.Read("page")) + "\n";
    }

    std::string NameValues() const
    {
        std::string lines;
        for (const char byte : AllBytes().substr(128)) {
            lines += std::string(2, byte) + "\xff" + std::string(1, byte) + "\n";
        }
        std::map<std::string, std::string> values;
        EXPECT_TRUE(orv_fileutils::ReadNameValueFromFile(dir_.Write("values", lines), values, '\xff', "\x80\x80"));
        std::string transcript;
        for (const auto& entry : values) {
            transcript += "name " + Hex(entry.first) + " value " + Hex(entry.second) + "\n";
        }
        return transcript;
    }
};

TEST_F(PortabilityTest, HighBytesHaveTheSameResultOnEveryMachine)
{
    const std::string transcript = Transcript();

    EXPECT_EQ(ReadFile(ORV_TEST_DATA "/high_bytes.txt"), transcript);
}

TEST_F(PortabilityTest, ResultsDoNotDependOnPlainChar)
{
    std::list<std::string> names = {"b\x80", "a\xff", "a\x7f", "a"};
    EXPECT_TRUE(orv_fileutils::GetDirFileList(dir_.Path().c_str(), nullptr, nullptr, names, false, false, true));

    EXPECT_EQ((std::list<std::string>{"a", "a\x7f", "a\xff", "b\x80"}), names) << "sorted as unsigned bytes";
}

}  // namespace
