// A directory that goes away with its test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "sflow-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            std::abort();
        path_ = pattern;
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] const std::string &path() const { return path_; }

private:
    std::string path_;
};
