/**
 * A folder of a test's own, removed with all that is in it.
 */
#ifndef MEMORY_SCRATCH_H
#define MEMORY_SCRATCH_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class Scratch
{
public:
    Scratch()
    {
        char name[] = "/tmp/cpuDefend-test-XXXXXX";
        if (mkdtemp(name) == nullptr)
            abort();
        folder = name;
    }
    ~Scratch() { std::filesystem::remove_all(folder); }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;

    std::string path(const std::string &name) const { return folder + "/" + name; }

    /** Write a file. @return its path */
    std::string write(const std::string &name, const std::string &text) const
    {
        std::ofstream(path(name)) << text;
        return path(name);
    }

    std::string read(const std::string &name) const
    {
        std::ostringstream text;
        text << std::ifstream(path(name)).rdbuf();
        return text.str();
    }

private:
    std::string folder;
};

#endif
