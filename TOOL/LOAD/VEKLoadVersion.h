// The program's version. A change of what its JSON means is a new VEK_LOAD_SCHEMA as well.
#ifndef VEK_LOAD_VERSION_H
#define VEK_LOAD_VERSION_H

constexpr char VEK_LOAD_VERSION[] = "1.0";

#endif
