#include "PowerNodeRequest.h"
