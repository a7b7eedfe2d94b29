// `NyRest::CommandResourceBase` lives in ResourceBase.h with the other resource base classes.
#pragma once
#include "NyRest/ResourceBase.h"
