// Resident memory of the test process, for the soaks' flat-memory checks.
#ifndef SIPC_TEST_RESIDENT_MEMORY_H
#define SIPC_TEST_RESIDENT_MEMORY_H

#include <unistd.h>

#include <cstddef>
#include <fstream>

namespace sipc_test {

// Resident bytes of this process, from /proc/self/statm.
inline size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    size_t pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace sipc_test

#endif  // SIPC_TEST_RESIDENT_MEMORY_H
