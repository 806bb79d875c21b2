#pragma once
// The scan samples and the loopback database live with the other shared helpers.
#include "support/ScanTestSupport.h"
