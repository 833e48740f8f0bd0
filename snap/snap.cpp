#include "snap/snap.h"
