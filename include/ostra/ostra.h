// Umbrella header: the whole exported interface of the Ostra Kernel.
#pragma once

#include "ostra/kadefs.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kathread.h"
#include "ostra/kaini.h"
#include "ostra/kacpu.h"
#include "ostra/kakernel.h"
#include "ostra/kalist.h"
#include "ostra/kaqueue.h"
#include "ostra/aiff.h"
#include "ostra/kawave.h"
#include "ostra/riff.h"
#include "ostra/riff64.h"
#include "ostra/mriff.h"
#include "ostra/kadib.h"
#include "ostra/kayuv.h"
