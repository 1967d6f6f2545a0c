#include "platform/Utf.h"
