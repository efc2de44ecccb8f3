#include "ZVTestSupport.h"
