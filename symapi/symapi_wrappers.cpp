#include "symapi/symapi_wrappers.h"
