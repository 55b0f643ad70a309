// version: the tool's version text, built once from build-time values.
#ifndef J480_UTILS_VERSION_H
#define J480_UTILS_VERSION_H

// The version text: build tag, branch, build date and time, compiler version. A static buffer
// of 128 bytes, built at the first call; later calls return the same buffer.
const char* version_str();

#endif  // J480_UTILS_VERSION_H
