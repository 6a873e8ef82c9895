// The owner of a directory attacks root, who copies and moves files into it: each name that appears beside the
// destination is swapped for a link to a file of root, as fast as possible. Nothing may be written through the link.
// With ORV_FULL in the environment, there are 3,000 tries for each function.

#include "safe/safe.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/orv_test.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>
#include <ostream>
#include <string>

namespace {

constexpr uid_t kNobody = 65534;

int Tries()
{
    return std::getenv("ORV_FULL") != nullptr ? 3000 : 300;
}

// What the attacker does with each staged name in the directory, in a process of its own.
class Attacker {
public:
    Attacker(const std::string& directory, const std::string& victim)
    {
        void* const shared = mmap(nullptr, sizeof(*swaps_), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) {
            std::abort();
        }
        swaps_ = new (shared) std::atomic<int>(0);
        child_ = fork();
        if (child_ == 0) {
            if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) {
                _exit(1);
            }
            for (;;) {
                SwapAll(directory, victim);
            }
        }
    }

    ~Attacker()
    {
        int status = 0;
        EXPECT_EQ(0, kill(child_, SIGKILL));
        EXPECT_EQ(child_, waitpid(child_, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status)) << "the attacker ended by itself";
        (void)munmap(swaps_, sizeof(*swaps_));
    }

    Attacker(const Attacker&) = delete;
    Attacker& operator=(const Attacker&) = delete;

    int Swaps() const
    {
        return swaps_->load();
    }

private:
    // Renames its own link over the staged name: the name always leads somewhere.
    void SwapAll(const std::string& directory, const std::string& victim)
    {
        DIR* const entries = opendir(directory.c_str());
        while (const dirent* const entry = entries == nullptr ? nullptr : readdir(entries)) {
            const std::string name = entry->d_name;
            const std::string link = directory + "/link";
            if (name.find(".orv_") == 0) {
                (void)unlink(link.c_str());
                if (symlink(victim.c_str(), link.c_str()) == 0 &&
                    rename(link.c_str(), (directory + "/" + name).c_str()) == 0) {
                    swaps_->fetch_add(1);
                }
            }
        }
        if (entries != nullptr) {
            (void)closedir(entries);
        }
    }

    std::atomic<int>* swaps_ = nullptr;
    pid_t child_ = 0;
};

struct Attack {
    std::string name;
    bool isMove;
    bool isNameless;  // the file system can create files without a name
};

// Otherwise the bytes are printed, also those between the members, which have no value.
void PrintTo(const Attack& attack, std::ostream* out)
{
    *out << attack.name;
}

class SafeFilesAttackTest : public TwoFileSystemsTest, public ::testing::WithParamInterface<Attack> {
protected:
    void SetUp() override
    {
        TwoFileSystemsTest::SetUp();
        if (geteuid() != 0) {
            ORV_SKIP("the attacked process must be root's");
        }
    }
};

TEST_P(SafeFilesAttackTest, NoFileOfRootIsWrittenOrGetsAnotherMode)
{
    const std::string victim = dir_.Write("victim", "victim's", 0600);
    const struct stat before = StatusOf(victim);
    const std::string directory = other_ / "attacked";
    ASSERT_EQ(0, mkdir(directory.c_str(), 0755));
    ASSERT_EQ(0, chown(directory.c_str(), kNobody, kNobody));
    const std::string bytes = BytesOfLength(200000);
    const std::string source = dir_ / "source";
    const std::string destination = directory + "/destination";
    int swaps = 0;
    int placed = 0;
    {
        std::optional<ScopedCall> noTmpfile;
        if (!GetParam().isNameless) {
            noTmpfile.emplace("tmpfile", 1, FailWith(EOPNOTSUPP), kAlways);
        }
        const Attacker attacker(directory, victim);
        for (int i = 0; i < Tries() && !HasFailure(); ++i) {
            if (!Exists(source)) {
                WriteFile(source, bytes);
                ASSERT_EQ(0, chmod(source.c_str(), 0666));
            }
            orv_safe::FileOptions options;
            options.durable = false;
            placed += (GetParam().isMove ? orv_safe::MoveFile : orv_safe::CopyFile)(source, destination, options);
            EXPECT_EQ("victim's", ReadFile(victim));
            (void)TakeDlogCalls();
        }
        swaps = attacker.Swaps();
    }

    const struct stat after = StatusOf(victim);
    EXPECT_EQ(before.st_mode, after.st_mode);
    EXPECT_EQ(before.st_uid, after.st_uid);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_TRUE(GetParam().isNameless || swaps > Tries() / 100) << "the attack did not hit: " << swaps;
    std::printf("campaign: attack, %s: %d tries, %d names swapped, %d true, 0 redirected\n", GetParam().name.c_str(),
                Tries(), swaps, placed);
}

INSTANTIATE_TEST_SUITE_P(Functions, SafeFilesAttackTest,
                         ::testing::Values(Attack{"copy", false, true}, Attack{"copyByANamedFile", false, false},
                                           Attack{"move", true, true}, Attack{"moveByANamedFile", true, false}),
                         CaseName<Attack>);

}  // namespace
