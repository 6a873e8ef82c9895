// A file system that shows another directory. Names of files and directories choose how it misbehaves.
//
// Usage: hostile_fuse DIRECTORY MOUNT_POINT      stays in the foreground; unmounts and ends after SIGTERM
//
//   create-eio open-eio chmod-eio rename-eio unlink-eio    this call fails; rename-eio is in the new name
//   read-eio write-eio     reading or writing fails from byte 8192 on
//   short-read short-write a call reads or writes at most 1000 bytes
//   flush-eio              closing fails
//   stick                  no links; everything belongs to root and has mode 0777, and that cannot be changed, as on a
//                          stick with FAT that root has mounted with umask=000
//   list-eio               a directory that cannot be read after its first file
// Every inode number is above 2^32.

#define FUSE_USE_VERSION 31
#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>

namespace {

const off_t kGoodBytes = 8192;
const std::size_t kShortBytes = 1000;
const ino_t kFarInode = ino_t{1} << 32;

std::string shown;  // the directory that is shown

std::string Real(const char* path)
{
    return shown + path;
}

// `path` is null for an open file that was removed.
bool Asks(const char* path, const char* misbehaviour)
{
    return path != nullptr && std::strstr(path, misbehaviour) != nullptr;
}

int Outcome(int result)
{
    return result == -1 ? -errno : 0;
}

int Descriptor(const fuse_file_info* file)
{
    return static_cast<int>(file->fh);
}

int KeepOpened(int descriptor, fuse_file_info* file)
{
    if (descriptor == -1) {
        return -errno;
    }
    file->fh = static_cast<std::uint64_t>(descriptor);
    // Without the page cache, so that every read and write reaches this program unchanged.
    file->direct_io = 1;
    return 0;
}

void* Init(fuse_conn_info*, fuse_config* config)
{
    config->use_ino = 1;
    config->hard_remove = 1;
    config->entry_timeout = 0;
    config->attr_timeout = 0;
    config->negative_timeout = 0;
    return nullptr;
}

int Getattr(const char* path, struct stat* status, fuse_file_info* file)
{
    const int outcome = Outcome(path == nullptr ? fstat(Descriptor(file), status) : lstat(Real(path).c_str(), status));
    status->st_ino += kFarInode;
    if (Asks(path, "stick")) {
        status->st_uid = 0;
        status->st_gid = 0;
        status->st_mode |= S_IRWXU | S_IRWXG | S_IRWXO;
    }
    return outcome;
}

int Readlink(const char* path, char* target, std::size_t bytes)
{
    const ssize_t length = readlink(Real(path).c_str(), target, bytes - 1);
    if (length == -1) {
        return -errno;
    }
    target[length] = '\0';
    return 0;
}

int Mknod(const char* path, mode_t mode, dev_t device)
{
    return Outcome(mknod(Real(path).c_str(), mode, device));
}

int Mkdir(const char* path, mode_t mode)
{
    return Outcome(mkdir(Real(path).c_str(), mode));
}

int Unlink(const char* path)
{
    return Asks(path, "unlink-eio") ? -EIO : Outcome(unlink(Real(path).c_str()));
}

int Rmdir(const char* path)
{
    return Outcome(rmdir(Real(path).c_str()));
}

int Symlink(const char* target, const char* path)
{
    return Outcome(symlink(target, Real(path).c_str()));
}

int Rename(const char* from, const char* to, unsigned int flags)
{
    if (flags != 0) {
        return Asks(to, "stick") ? Outcome(renameat2(AT_FDCWD, Real(from).c_str(), AT_FDCWD, Real(to).c_str(), flags))
                                 : -EINVAL;
    }
    return Asks(to, "rename-eio") ? -EIO : Outcome(rename(Real(from).c_str(), Real(to).c_str()));
}

int Link(const char* from, const char* to)
{
    return Asks(to, "stick") ? -EPERM : Outcome(link(Real(from).c_str(), Real(to).c_str()));
}

int Chmod(const char* path, mode_t mode, fuse_file_info*)
{
    if (Asks(path, "stick")) {
        return -EPERM;
    }
    return Asks(path, "chmod-eio") ? -EIO : Outcome(chmod(Real(path).c_str(), mode));
}

int Chown(const char* path, uid_t user, gid_t group, fuse_file_info*)
{
    return Asks(path, "stick") ? -EPERM : Outcome(lchown(Real(path).c_str(), user, group));
}

int Truncate(const char* path, off_t size, fuse_file_info*)
{
    return Outcome(truncate(Real(path).c_str(), size));
}

int Utimens(const char* path, const timespec times[2], fuse_file_info*)
{
    return Outcome(utimensat(AT_FDCWD, Real(path).c_str(), times, AT_SYMLINK_NOFOLLOW));
}

int Create(const char* path, mode_t mode, fuse_file_info* file)
{
    if (Asks(path, "create-eio")) {
        return -EIO;
    }
    const int descriptor = open(Real(path).c_str(), file->flags, mode);
    if (descriptor != -1 && !Asks(path, "stick") &&
        fchown(descriptor, fuse_get_context()->uid, fuse_get_context()->gid) != 0) {
        const int error = errno;
        close(descriptor);
        return -error;
    }
    return KeepOpened(descriptor, file);
}

int Open(const char* path, fuse_file_info* file)
{
    if (Asks(path, "open-eio")) {
        return -EIO;
    }
    return KeepOpened(open(Real(path).c_str(), file->flags), file);
}

int Read(const char* path, char* bytes, std::size_t count, off_t offset, fuse_file_info* file)
{
    if (Asks(path, "read-eio")) {
        if (offset >= kGoodBytes) {
            return -EIO;
        }
        count = std::min(count, static_cast<std::size_t>(kGoodBytes - offset));
    }
    if (Asks(path, "short-read")) {
        count = std::min(count, kShortBytes);
    }
    const ssize_t got = pread(Descriptor(file), bytes, count, offset);
    return got == -1 ? -errno : static_cast<int>(got);
}

int Write(const char* path, const char* bytes, std::size_t count, off_t offset, fuse_file_info* file)
{
    if (Asks(path, "write-eio")) {
        if (offset >= kGoodBytes) {
            return -EIO;
        }
        count = std::min(count, static_cast<std::size_t>(kGoodBytes - offset));
    }
    if (Asks(path, "short-write")) {
        count = std::min(count, kShortBytes);
    }
    const ssize_t put = pwrite(Descriptor(file), bytes, count, offset);
    return put == -1 ? -errno : static_cast<int>(put);
}

int Flush(const char* path, fuse_file_info*)
{
    return Asks(path, "flush-eio") ? -EIO : 0;
}

int Release(const char*, fuse_file_info* file)
{
    return Outcome(close(Descriptor(file)));
}

int FillWhole(DIR* directory, void* buffer, fuse_fill_dir_t fill)
{
    while (const dirent* entry = readdir(directory)) {
        struct stat status {};
        status.st_ino = entry->d_ino + kFarInode;
        status.st_mode = static_cast<mode_t>(DTTOIF(entry->d_type));
        if (fill(buffer, entry->d_name, &status, 0, fuse_fill_dir_flags{}) != 0) {
            return -ENOMEM;
        }
    }
    return 0;
}

// Lists one file, and a position after it from which the kernel asks for more.
int FillFirstFile(DIR* directory, void* buffer, fuse_fill_dir_t fill)
{
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_type == DT_REG) {
            struct stat status {};
            status.st_ino = entry->d_ino + kFarInode;
            status.st_mode = S_IFREG;
            fill(buffer, entry->d_name, &status, 1, fuse_fill_dir_flags{});
            return 0;
        }
    }
    return 0;
}

int Readdir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t offset, fuse_file_info*, fuse_readdir_flags)
{
    if (offset > 0) {
        return -EIO;  // only list-eio has positions
    }
    DIR* const directory = opendir(Real(path).c_str());
    if (directory == nullptr) {
        return -errno;
    }
    const int outcome =
        Asks(path, "list-eio") ? FillFirstFile(directory, buffer, fill) : FillWhole(directory, buffer, fill);
    closedir(directory);
    return outcome;
}

}  // namespace

int main(int argc, char* argv[])
{
    if (argc != 3) {
        std::cerr << "Usage: hostile_fuse DIRECTORY MOUNT_POINT\n";
        return 2;
    }
    shown = argv[1];
    umask(0);  // the kernel has applied the mask of the caller

    fuse_operations operations{};
    operations.init = Init;
    operations.getattr = Getattr;
    operations.readlink = Readlink;
    operations.mknod = Mknod;
    operations.mkdir = Mkdir;
    operations.unlink = Unlink;
    operations.rmdir = Rmdir;
    operations.symlink = Symlink;
    operations.rename = Rename;
    operations.link = Link;
    operations.chmod = Chmod;
    operations.chown = Chown;
    operations.truncate = Truncate;
    operations.utimens = Utimens;
    operations.create = Create;
    operations.open = Open;
    operations.read = Read;
    operations.write = Write;
    operations.flush = Flush;
    operations.release = Release;
    operations.readdir = Readdir;

    std::string program = argv[0];
    std::string foreground = "-f";
    std::string oneThread = "-s";
    std::string options = "-oallow_other,default_permissions";
    std::string mountPoint = argv[2];
    char* arguments[] = {&program[0], &foreground[0], &oneThread[0], &options[0], &mountPoint[0], nullptr};
    return fuse_main(5, arguments, &operations, nullptr);
}
