#pragma once
#include "../database/x.h"
