// The service that security_test.py attacks: publishes one page. It first waits for the end of its standard input, so
// that the test can plant objects under its process id. It ends after a minute at the latest, because a FIFO may block
// it.
//
// Usage: security_page USER_ID TABLE_FILE PAGE [safe]
// With "safe", PublishPage of the safe companion publishes, and the status is 1 if it returns false.
#include "LxFileUtils.h"
#include "safe/safe.h"

#include <grp.h>
#include <unistd.h>

#include <cstdlib>

namespace {

const unsigned int kLifeSeconds = 60;

// Only after the start, because the program may be in a directory that this user may not search.
bool BecomeUser(uid_t user)
{
    return user == 0 || (setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 4 || argc > 5 || !BecomeUser(static_cast<uid_t>(std::strtoul(argv[1], nullptr, 10)))) {
        return 2;
    }
    alarm(kLifeSeconds);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    if (argc == 5) {
        return orv_safe::PublishPage(argv[2], argv[3]) ? 0 : 1;
    }
    orv_fileutils::GenHtmlPagefromTextFile(argv[2], argv[3]);
    return 0;
}
