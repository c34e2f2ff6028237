// From the command line to the plan of a run.
#ifndef VEK_LOAD_TARGETS_H
#define VEK_LOAD_TARGETS_H

#include <string>

#include "CVEKLoadSchedule.h"
#include "VEKLoadOptions.h"
#include "VEKLoadPlan.h"

// False: `error` says what is wrong.
bool VEK_LOAD_MAKE_PLAN(const VEK_ST_LOAD_OPTIONS& options, VEK_ST_LOAD_PLAN& plan,
                        std::string& error);
CVEKLoadSchedule VEK_LOAD_MAKE_SCHEDULE(const VEK_ST_LOAD_OPTIONS& options);

#endif
