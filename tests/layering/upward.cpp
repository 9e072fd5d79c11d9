// A store file that includes the node tree above it: the build must refuse it.
#include "nodes/Key.h"
