#pragma once

// Umbrella header for the Foundation stand-ins.
#include "platform/foundation/Array.h"
#include "platform/foundation/ClassRegistry.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/MutableDictionary.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/Object.h"
#include "platform/foundation/String.h"
#include "platform/foundation/TreeNode.h"
#include "platform/foundation/Url.h"
#include "platform/foundation/Uuid.h"
