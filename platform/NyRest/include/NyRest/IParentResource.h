// `NyRest::IParentResource` lives in Resource.h with the other resource interfaces.
#pragma once
#include "NyRest/Resource.h"
