#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace tavro_test {

// A fresh working directory for the scope, removed afterwards: parallel test
// processes never share relative paths (log/, config files).
class ScopedTempDir {
public:
    ScopedTempDir()
    {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd)) old_ = cwd;
        char tmpl[] = "/tmp/tavro-test-XXXXXX";
        const char* d = mkdtemp(tmpl);
        if (d == nullptr) ADD_FAILURE() << "mkdtemp failed";
        path_ = d ? d : "/tmp";
        if (chdir(path_.c_str()) != 0) ADD_FAILURE() << "chdir failed";
    }
    ~ScopedTempDir()
    {
        if (!old_.empty() && chdir(old_.c_str()) != 0) ADD_FAILURE() << "chdir back failed";
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScopedTempDir(const ScopedTempDir&) = delete;
    ScopedTempDir& operator=(const ScopedTempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string old_;
    std::string path_;
};

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// What operator<< writes for v.
template <typename T>
std::string text(const T& v)
{
    std::ostringstream os;
    os << v;
    return os.str();
}

} // namespace tavro_test
