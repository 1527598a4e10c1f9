#include "PowerNode.h"
