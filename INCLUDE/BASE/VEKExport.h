// What the shared libraries export.
#ifndef VEK_EXPORT_H
#define VEK_EXPORT_H

// Stands before what programs may call: all else stays within its library. In an internal header:
// what the next library above calls besides.
#define VEK_API __attribute__((visibility("default")))

#endif
