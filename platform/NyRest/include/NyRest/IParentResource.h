#pragma once
#include "NyRest/Resource.h"
