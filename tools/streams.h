// Standard input, and files for what does not fit into memory.
#ifndef ORV_TOOLS_STREAMS_H
#define ORV_TOOLS_STREAMS_H

#include "support.h"

#include <cstddef>
#include <optional>
#include <string>

// Fills the block from standard input. Returns fewer bytes than `size` only at the end of the input. Throws Failure if
// standard input cannot be read.
std::size_t ReadInput(char* block, std::size_t size);

// Creates a file without a name, which nobody else can open and which vanishes with the process. It is in the directory
// $TMPDIR, or else in /var/tmp. Returns its descriptor. Throws Failure.
int CreatePrivateFile();

// Throws Failure if not all bytes can be written.
void WritePrivateFile(int file, const char* bytes, std::size_t size);

// Keeps a result until all of it is known: a small one in memory, a large one in a private file.
class Spool {
public:
    void Add(const std::string& bytes);

    // Writes it to standard output.
    void Print();

private:
    void Flush();
    void PrintFile() const;

    std::string last_;  // what is not in the file yet
    std::optional<Descriptor> file_;
};

#endif  // ORV_TOOLS_STREAMS_H
