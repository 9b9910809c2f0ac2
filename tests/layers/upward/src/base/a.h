#pragma once
#include "config/b.h"
