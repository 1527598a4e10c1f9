#include "cmabstractworker.h"

CMAbstractWorker::~CMAbstractWorker() = default;
