#include "tests/system/power_cut/power_cut_fixture.h"
