/* Kavlen engine: the whole C interface of libkavlen_engine.so. */
#ifndef KAVLEN_KAVLEN_H
#define KAVLEN_KAVLEN_H
#include "kavlen_engine.h"
#endif
