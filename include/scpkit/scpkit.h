// scpkit: everything an application needs in one include.
#pragma once

#include "base/ClsBinData.h"
#include "base/DataBuffer.h"
#include "base/Progress.h"
#include "base/XString.h"
#include "scp/ClsScp.h"
#include "ssh/ClsSsh.h"
