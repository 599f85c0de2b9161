// The page's files, built into the tool from tools/sensorctl/view/page/ (see embed.cmake).
#ifndef SENSORCTL_VIEW_PAGE_FILES_H
#define SENSORCTL_VIEW_PAGE_FILES_H

#include <cstddef>

namespace sensorctl::view {

struct PageFile {
    const char* path;  // "/view.js"; the page itself is "/index.html"
    const unsigned char* data;
    size_t size;
};

extern const PageFile kPageFiles[];
extern const size_t kPageFileCount;

}  // namespace sensorctl::view

#endif  // SENSORCTL_VIEW_PAGE_FILES_H
