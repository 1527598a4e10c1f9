#include "PowerHandler.h"
