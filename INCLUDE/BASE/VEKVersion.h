// The version of the libraries and programs, by semver.org. It is written here alone: the build and
// the packages read it from this file.
#ifndef VEK_VERSION_H
#define VEK_VERSION_H

#define VEK_VERSION_MAJOR 1
#define VEK_VERSION_MINOR 0
#define VEK_VERSION_PATCH 0

// Grows with the version and can be compared by the preprocessor: 1.2.3 is 10203.
#define VEK_VERSION_NUMBER (VEK_VERSION_MAJOR * 10000 + VEK_VERSION_MINOR * 100 + VEK_VERSION_PATCH)

// The version of the headers as text.
#define VEK_VERSION VEK_VERSION_JOIN(VEK_VERSION_MAJOR, VEK_VERSION_MINOR, VEK_VERSION_PATCH)
#define VEK_VERSION_JOIN(major, minor, patch) VEK_VERSION_QUOTE(major, minor, patch)
#define VEK_VERSION_QUOTE(major, minor, patch) #major "." #minor "." #patch

#endif
