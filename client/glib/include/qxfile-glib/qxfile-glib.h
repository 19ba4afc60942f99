#pragma once

#include "qxfile-glib/qxfile-client.h"
#include "qxfile-glib/qxfile-error.h"
#include "qxfile-glib/qxfile-records.h"
