#include "requestidentities.h"

#include "PowerNodeRequest.h"

void PowerNodeRequestTestAccess::setIdCounter(int64_t value)
{
    PowerNodeRequest::s_idCounter = value;
}
