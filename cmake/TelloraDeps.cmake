# Third-party packages. Everything comes from Debian (scripts/install-deps.sh), except
# KISS FFT, built from third_party/ with strict float semantics.
add_subdirectory(${PROJECT_SOURCE_DIR}/third_party/kissfft ${PROJECT_BINARY_DIR}/third_party/kissfft)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(Boost 1.81 REQUIRED CONFIG COMPONENTS url)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
pkg_check_modules(PORTAUDIO REQUIRED IMPORTED_TARGET portaudio-2.0)
pkg_check_modules(ALSA IMPORTED_TARGET alsa)

# Asio and Beast are compiled once, in runtime/asio_impl.cpp, instead of in every
# file that includes them.
add_library(tellora_asio INTERFACE)
target_compile_definitions(tellora_asio INTERFACE
  BOOST_ASIO_SEPARATE_COMPILATION BOOST_BEAST_SEPARATE_COMPILATION
  BOOST_ASIO_NO_DEPRECATED BOOST_BEAST_USE_STD_STRING_VIEW)
target_link_libraries(tellora_asio INTERFACE Boost::headers Boost::url
  OpenSSL::SSL OpenSSL::Crypto Threads::Threads)

add_library(tellora_deps INTERFACE)
target_link_libraries(tellora_deps INTERFACE tellora_asio tellora_kissfft
  nlohmann_json::nlohmann_json PkgConfig::PORTAUDIO Threads::Threads)
if(ALSA_FOUND)
  target_link_libraries(tellora_deps INTERFACE PkgConfig::ALSA)
  target_compile_definitions(tellora_deps INTERFACE TELLORA_HAVE_ALSA)
endif()

# Audio files are read by the tools (and the file-backed audio source) only.
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET sndfile)
pkg_check_modules(SAMPLERATE REQUIRED IMPORTED_TARGET samplerate)
