// The one translation unit that compiles Asio and Beast (separate compilation
// mode); every other file includes their headers only.
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>
