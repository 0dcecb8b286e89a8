// The exported-API helpers live in the one support header.
#pragma once
#include "tests/support/TestSupport.h"
