#pragma once
// The sample MP4 makers live with the other shared helpers.
#include "support/Mp4TestMedia.h"
