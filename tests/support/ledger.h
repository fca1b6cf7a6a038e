#pragma once
#include "support/failing.h"
