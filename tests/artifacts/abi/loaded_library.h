// A library that a test loads at run time, not when the program starts.
#ifndef ORV_TESTS_LOADED_LIBRARY_H
#define ORV_TESTS_LOADED_LIBRARY_H

#include <dlfcn.h>

#include <fstream>
#include <string>
#include <vector>

// Loads the library at `path` and binds all its symbols. The destructor unloads it.
class LoadedLibrary {
public:
    explicit LoadedLibrary(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL))
    {
        if (handle_ == nullptr) {
            error_ = dlerror();
        }
    }
    ~LoadedLibrary()
    {
        if (handle_ != nullptr) {
            dlclose(handle_);
        }
    }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    const std::string& Error() const  // empty if it was loaded
    {
        return error_;
    }
    void* Find(const std::string& symbol) const
    {
        return handle_ == nullptr ? nullptr : dlsym(handle_, symbol.c_str());
    }

private:
    void* handle_;
    std::string error_;
};

// Returns the lines of this process's memory map that name one of the libraries.
inline std::vector<std::string> MappedProductLibraries()
{
    std::vector<std::string> lines;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/libOrv") != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

#endif  // ORV_TESTS_LOADED_LIBRARY_H
