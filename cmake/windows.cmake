# The agent's own code against the real Windows headers: compiled, not linked, as the proof that the layer in win32/
# tells the truth about types, constants and signatures. Of component/ the TLS engine is left out, which is OpenSSL's.
add_compile_definitions(UNICODE _UNICODE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
foreach(folder resources platform diagnostics eventlog identity directory component protocol service)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${folder}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/openssl_engine\\.cpp$")
  if(sources)
    add_library(agent_${folder} OBJECT ${sources})
    target_include_directories(agent_${folder} PRIVATE ${PROJECT_SOURCE_DIR}/src)
  endif()
endforeach()
