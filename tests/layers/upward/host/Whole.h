#pragma once
#include "platform/Low.h"
