#pragma once
#include "NyRest/ResourceBase.h"
