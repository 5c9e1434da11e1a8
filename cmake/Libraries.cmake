# The libraries we use; all are Debian packages and Homebrew formulae.

find_package(Threads REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(CURL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(spdlog REQUIRED)
find_package(CLI11 REQUIRED)
find_package(Iconv REQUIRED)  # of the C library, or beside it

# Boost.Asio compiled once instead of in every file.
add_library(skein_asio STATIC ${PROJECT_SOURCE_DIR}/cmake/asio.cpp)
target_compile_features(skein_asio PUBLIC cxx_std_20)
target_compile_definitions(skein_asio PUBLIC BOOST_ASIO_SEPARATE_COMPILATION BOOST_ASIO_NO_DEPRECATED BOOST_ALL_NO_LIB)
target_include_directories(skein_asio SYSTEM PUBLIC ${Boost_INCLUDE_DIRS})
target_link_libraries(skein_asio PUBLIC Threads::Threads PRIVATE skein_flags OpenSSL::SSL)

# What of Boost.Beast is no template, likewise.
add_library(skein_beast STATIC ${PROJECT_SOURCE_DIR}/cmake/beast.cpp)
target_compile_definitions(skein_beast PUBLIC BOOST_BEAST_SEPARATE_COMPILATION)
target_link_libraries(skein_beast PUBLIC skein_asio PRIVATE skein_flags)

# Boost.JSON, likewise.
add_library(skein_json STATIC ${PROJECT_SOURCE_DIR}/cmake/json.cpp)
target_compile_features(skein_json PUBLIC cxx_std_20)
target_compile_definitions(skein_json PUBLIC BOOST_JSON_NO_LIB BOOST_ALL_NO_LIB)
target_include_directories(skein_json SYSTEM PUBLIC ${Boost_INCLUDE_DIRS})
target_link_libraries(skein_json PRIVATE skein_flags)

# Boost.URL, likewise.
add_library(skein_url STATIC ${PROJECT_SOURCE_DIR}/cmake/url.cpp)
target_compile_features(skein_url PUBLIC cxx_std_20)
target_compile_definitions(skein_url PUBLIC BOOST_URL_NO_LIB BOOST_ALL_NO_LIB)
target_include_directories(skein_url SYSTEM PUBLIC ${Boost_INCLUDE_DIRS})
