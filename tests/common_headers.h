/*
 * common_headers.h: what most tests include, compiled once for a program of many sources. A source includes what it
 * uses all the same: without precompiled headers (CMAKE_DISABLE_PRECOMPILE_HEADERS) everything compiles, too.
 */
#ifndef TESTS_COMMON_HEADERS_H
#define TESTS_COMMON_HEADERS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#endif
