#pragma once
#include "util/Text.h"
