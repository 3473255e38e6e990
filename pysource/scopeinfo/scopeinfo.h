// The one header that users of the module include: the cache, records and keys, merging, the
// serializer and the derived-value cache.
#pragma once

#include "pysource/scopeinfo/dependantcache/scopedependantcache.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/scopeinfo/records/mergescopeinfo.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/records/scopeinfokey.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
