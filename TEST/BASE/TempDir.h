// A directory for one test, removed with what is in it.
#ifndef TEMP_DIR_H
#define TEMP_DIR_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class TempDir {
  public:
    TempDir() : path_((std::filesystem::temp_directory_path() / "vek-XXXXXX").string()) {
        path_ = mkdtemp(path_.data());
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Path(const std::string& name = "") const {
        return name.empty() ? path_ : path_ + "/" + name;
    }
    std::string Write(const std::string& name, const std::string& text) const {
        std::ofstream(Path(name)) << text;
        return Path(name);
    }
    std::string Read(const std::string& name) const {
        std::stringstream text;
        text << std::ifstream(Path(name)).rdbuf();
        return text.str();
    }
    bool Has(const std::string& name) const {
        return std::filesystem::exists(std::filesystem::symlink_status(Path(name)));
    }

  private:
    std::string path_;
};

#endif
