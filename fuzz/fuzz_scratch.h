// A scratch directory for one fuzz target's process: made on first use (memory-backed /dev/shm when the
// machine has it, else the temporary directory), and removed with its files when the process exits.
#ifndef SIPC_FUZZ_SCRATCH_H
#define SIPC_FUZZ_SCRATCH_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace sipc_fuzz {

inline std::vector<std::string>& scratchDirs() {
    static auto* dirs = new std::vector<std::string>;  // never destroyed: read by the exit handler
    return *dirs;
}

// "" when no directory could be made.
inline std::string makeScratchDir(const std::string& name, bool preferMemory = false) {
    std::vector<std::string> bases;
    if (preferMemory) bases.push_back("/dev/shm");
    const char* tmp = std::getenv("TMPDIR");
    bases.push_back(tmp != nullptr && *tmp == '/' ? tmp : "/tmp");
    for (const std::string& base : bases) {
        std::string pattern = base + "/sipc-fuzz-" + name + "-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) continue;
        if (scratchDirs().empty()) {
            std::atexit([] {
                std::error_code ec;
                for (const std::string& dir : scratchDirs()) std::filesystem::remove_all(dir, ec);
            });
        }
        scratchDirs().push_back(pattern);
        return pattern;
    }
    return "";
}

}  // namespace sipc_fuzz

#endif  // SIPC_FUZZ_SCRATCH_H
