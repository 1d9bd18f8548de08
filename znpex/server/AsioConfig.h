// The one include of the standalone asio library for the service, with the
// configuration every translation unit must agree on.
#pragma once

#ifndef ASIO_STANDALONE
#define ASIO_STANDALONE
#endif
#ifndef ASIO_NO_DEPRECATED
#define ASIO_NO_DEPRECATED
#endif

#include <asio.hpp>
