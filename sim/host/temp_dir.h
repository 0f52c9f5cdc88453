// A private scratch folder for the simulated host's trees: mirvak-simhost
// uses one when no root is given, tests use them for everything they write.
#ifndef MIRVAK_SIM_TEMP_DIR_H
#define MIRVAK_SIM_TEMP_DIR_H

#include <string>

namespace sim {

// A fresh folder made with mkdtemp under $TMPDIR (or /tmp), named
// <prefix>.XXXXXX, removed with everything in it when the object goes away.
// The constructor throws std::runtime_error when the folder cannot be made.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "mirvak");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace sim

#endif
