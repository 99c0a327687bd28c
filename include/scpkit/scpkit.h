// scpkit: everything an application needs in one include.
// The headers reached from here are the installed API, and the only ones
// installed: a header included here or from one of them becomes public.
#pragma once

#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Progress.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
