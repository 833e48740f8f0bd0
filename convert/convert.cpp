#include "convert/convert.h"
