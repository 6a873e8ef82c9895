#include "streams.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>

// No call is made again after EINTR: no command that uses this file catches a signal.

namespace {

const std::size_t kBlockBytes = 65536;

std::string PrivateDirectory()
{
    const char* const wanted = std::getenv("TMPDIR");
    return wanted != nullptr && *wanted != '\0' ? wanted : "/var/tmp";
}

// For file systems that only know files with names.
int CreateAndUnlink(const std::string& directory)
{
    std::string path = directory + "/orvfile_XXXXXX";
    const int file = mkostemp(path.data(), O_CLOEXEC);
    if (file != -1) {
        (void)unlink(path.c_str());
    }
    return file;
}

[[noreturn]] void FailForPrivateFile(const char* what)
{
    const std::string reason = ErrorText(errno);
    throw Failure(std::string("cannot ") + what + " a temporary file in " + Quoted(PrivateDirectory()) + ": " + reason,
                  "set TMPDIR to a directory that is writable and has enough space");
}

}  // namespace

std::size_t ReadInput(char* block, std::size_t size)
{
    std::size_t have = 0;
    while (have < size) {
        const ssize_t got = read(STDIN_FILENO, block + have, size - have);
        if (got == -1) {
            throw Failure("cannot read standard input: " + ErrorText(errno), "redirect it from a file or a pipe");
        }
        if (got == 0) {
            break;
        }
        have += static_cast<std::size_t>(got);
    }
    return have;
}

int CreatePrivateFile()
{
    const std::string directory = PrivateDirectory();
    int file = open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file == -1 && (errno == EOPNOTSUPP || errno == EISDIR)) {  // EISDIR: the kernel is older than O_TMPFILE
        file = CreateAndUnlink(directory);
    }
    if (file == -1) {
        FailForPrivateFile("create");
    }
    return file;
}

void WritePrivateFile(int file, const char* bytes, std::size_t size)
{
    for (std::size_t done = 0; done < size;) {
        const ssize_t put = write(file, bytes + done, size - done);
        if (put == -1) {
            FailForPrivateFile("write");
        }
        done += static_cast<std::size_t>(put);
    }
}

void Spool::Add(const std::string& bytes)
{
    last_ += bytes;
    if (last_.size() >= kBlockBytes) {
        Flush();
    }
}

void Spool::Flush()
{
    if (!file_) {
        file_.emplace(CreatePrivateFile());
    }
    WritePrivateFile(*file_, last_.data(), last_.size());
    last_.clear();
}

void Spool::Print()
{
    if (file_) {
        PrintFile();
    }
    PrintResult(last_);
}

void Spool::PrintFile() const
{
    std::string block(kBlockBytes, '\0');
    for (off_t at = 0;;) {
        const ssize_t got = pread(*file_, block.data(), block.size(), at);
        if (got == -1) {
            FailForPrivateFile("read");
        }
        if (got == 0) {
            return;
        }
        PrintResult(block.substr(0, static_cast<std::size_t>(got)));
        at += got;
    }
}
