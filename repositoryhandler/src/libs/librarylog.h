// The library's one logger, under the ident "KTRepositoryHandler". It is built before any entry can run
// and outlives the registry of repositories, so that every room may log at any time (see registry.cpp).

#ifndef REPOSITORYHANDLER_LIBRARYLOG_H
#define REPOSITORYHANDLER_LIBRARYLOG_H

#include "KTApi.h"
#include "KTLogger.h"

extern KT_API KTLogger rh_logger;

#endif
