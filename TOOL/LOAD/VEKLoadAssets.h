// Files that the program holds: each ends with a null character that is not part of it. Made by the
// build.
#ifndef VEK_LOAD_ASSETS_H
#define VEK_LOAD_ASSETS_H

extern const char VEK_LOAD_CHART_SCRIPT[];
extern const char VEK_LOAD_CHART_LICENCE[];
extern const char VEK_LOAD_PAGE_TEXT[];  // report.html

#endif
