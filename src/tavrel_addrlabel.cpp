#include "tavrel_internal.h"
