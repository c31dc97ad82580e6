# Writes the texts of the version record that only the build knows. With SOURCE_DATE_EPOCH set they are the same on
# every machine: date and time come from it, host and system line are fixed. The file is left alone when nothing changed.
string(REPLACE "." ";" version "${VERSION}")
list(GET version 0 major)
list(GET version 1 minor)
list(GET version 2 patch)

if(DEFINED ENV{SOURCE_DATE_EPOCH})
    set(host "reproducible")
    set(kernel "Linux-reproducible")
    set(uname "Linux reproducible reproducible x86_64 GNU/Linux")
else()
    cmake_host_system_information(RESULT host QUERY HOSTNAME)
    execute_process(COMMAND uname -snrvmo OUTPUT_VARIABLE uname OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND uname -s OUTPUT_VARIABLE kernel_name OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND uname -r OUTPUT_VARIABLE kernel_release OUTPUT_STRIP_TRAILING_WHITESPACE)
    string(REPLACE "/" "-" kernel "${kernel_name}-${kernel_release}")
endif()
# TIMESTAMP honours SOURCE_DATE_EPOCH by itself.
string(TIMESTAMP date "%Y/%m/%d" UTC)
string(TIMESTAMP time "%H:%M:%S" UTC)
string(TIMESTAMP stamp "%Y-%m-%d %H:%M:%S" UTC)

string(CONCAT ident "libcorvex16_r.so.1/${major}.${minor}.${patch}/P/x86_64/${kernel}/${BUILD_NUMBER}/OPT/${stamp}")
set(text "// Made by cmake/version_record.cmake.\n")
foreach(pair IN ITEMS "MAJOR|${major}" "MINOR|${minor}" "PATCH|${patch}" "BUILD|${BUILD_NUMBER}" "DATE|${date}"
        "TIME|${time}" "HOST|${host}" "UNAME|${uname}" "IDENT|${ident}"
        "COPYRIGHT|The libcorvex16_r developers\\nAll rights reserved.\\nRuntime support for server processes.")
    string(REPLACE "|" ";" pair "${pair}")
    list(GET pair 0 key)
    list(GET pair 1 value)
    string(APPEND text "#define VERSION_RECORD_${key} \"${value}\"\n")
endforeach()
file(CONFIGURE OUTPUT "${OUTPUT}" CONTENT "${text}" @ONLY)
