#pragma once
// Everything of the binder at once.

#include "slb3/class.h"
#include "slb3/error.h"
#include "slb3/method.h"
#include "slb3/namespace.h"
#include "slb3/object.h"
#include "slb3/stack.h"
#include "slb3/table.h"
#include "slb3/wrapper.h"
