// Everything public of TQLib.
#pragma once

#include "TQLib/TQLib.h"
