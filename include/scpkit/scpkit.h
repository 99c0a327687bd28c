// scpkit: everything an application needs in one include.
#pragma once

#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
