#pragma once
#include "host/Whole.h"
