#pragma once
#include "ipc/y.h"
