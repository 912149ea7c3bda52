#pragma once

#include <cstddef>
#include <string>

// What the station makes of the URL of a peer, as libcurl reads it. Thread: any.

// The longest URL, in bytes: the library cuts arguments behind 1024 bytes.
constexpr std::size_t kMaximumUrlLength = 1023;

// Why a URL cannot be polled, a text that goes on behind the name of an option and repeats nothing of the URL; empty
// when it can be tried.
std::string WhatIsWrongWithUrl(const std::string& url);

// The URL without what may be secret in it, for people to read: no user, no password, no query. Empty when it is none.
std::string NameOfPeer(const std::string& url);
