#pragma once // the exported-API helpers live in the one support header
#include "tests/support/TestSupport.h"
