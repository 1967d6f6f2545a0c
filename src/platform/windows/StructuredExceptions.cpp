#include "platform/StructuredExceptions.h"
