// Writes what the Python tests expect of the library to a file, as JSON: see oracle.py.
#include "support/messages.h"
#include "support/oracle.h"

#include <fstream>
#include <string>

namespace {

// Only quotation marks and backslashes need an escape here.
std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char byte : text) {
        quoted += byte == '"' || byte == '\\' ? std::string("\\") + byte : std::string(1, byte);
    }
    return quoted + "\"";
}

}  // namespace

int main(int argc, char** argv)
{
    std::ofstream file(argc == 2 ? argv[1] : "");
    file << "{\n";
    file << "  \"severity\": " << messages::kSeverity << ",\n";
    file << "  \"source\": " << Quoted(messages::kSource) << ",\n";
    file << "  \"any_suffix\": " << Quoted(messages::kAnySuffix) << ",\n";
    file << "  \"page_header\": " << Quoted(oracle::kPageHeader) << ",\n";
    file << "  \"page_footer\": " << Quoted(oracle::kPageFooter) << ",\n";
    file << "  \"temporary_page_of_1\": " << Quoted(oracle::TemporaryPage(1)) << ",\n";
    file << "  \"messages\": {";
    const char* separator = "\n";
    for (const messages::Message* const message : messages::kAll) {
        file << separator << "    " << Quoted(message->name) << ": [" << Quoted(message->function) << ", "
             << Quoted(message->format) << "]";
        separator = ",\n";
    }
    file << "\n  }\n}\n";
    file.close();
    return file ? 0 : 1;
}
