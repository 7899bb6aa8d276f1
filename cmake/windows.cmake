# The agent's own code against the real Windows headers: compiled, not linked, as the proof that the layer in win32/
# tells the truth about types, constants and signatures, and that no level of src/ includes what stands above it.
add_compile_definitions(UNICODE _UNICODE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
add_library(windows_headers INTERFACE)  # the compiler's own
add_library(win32_layer INTERFACE)      # Windows itself
set(KELDWICK_LEVEL_TYPE OBJECT)
set(KELDWICK_OF_ANOTHER_PLATFORM openssl_engine)  # the TLS engine, whose Windows side is still to come
include(cmake/levels.cmake)
