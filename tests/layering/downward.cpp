// A store file may include the store: this must compile.
#include "store/Hive.h"
