# The OAuth client credentials of GitLab and Bitbucket and the web host of the registered redirect
# address are deployment data: a packager sets these cache variables, and the build writes them into
# "veldtrack-hosts-service.oauth", the JSON file the service reads beside its executable.
set(VELDTRACK_GITLAB_CLIENT_ID "" CACHE STRING "OAuth client id registered with GitLab")
set(VELDTRACK_GITLAB_CLIENT_SECRET "" CACHE STRING "OAuth client secret registered with GitLab")
set(VELDTRACK_BITBUCKET_CLIENT_ID "" CACHE STRING "OAuth client id (key) registered with Bitbucket")
set(VELDTRACK_BITBUCKET_CLIENT_SECRET "" CACHE STRING "OAuth client secret registered with Bitbucket")
set(VELDTRACK_REDIRECT_HOST "veldtrack.com" CACHE STRING "Web host of the registered OAuth redirect address")

set(VT_OAUTH_FILE_NAME veldtrack-hosts-service.oauth)

# A JSON string literal of `value`.
function(vt_json_string out value)
    string(REPLACE "\\" "\\\\" value "${value}")
    string(REPLACE "\"" "\\\"" value "${value}")
    string(REPLACE "\n" "\\n" value "${value}")
    string(REPLACE "\t" "\\t" value "${value}")
    set(${out} "\"${value}\"" PARENT_SCOPE)
endfunction()

# Writes the credentials file into `directory` (mode 0600: it may hold secrets) and installs it
# into `destination`, readable by all only when it holds no secret.
function(vt_write_oauth_file directory destination)
    foreach(name GITLAB_CLIENT_ID GITLAB_CLIENT_SECRET BITBUCKET_CLIENT_ID BITBUCKET_CLIENT_SECRET
                 REDIRECT_HOST)
        vt_json_string(${name} "${VELDTRACK_${name}}")
    endforeach()
    set(text "{\"gitlab\": {\"client_id\": ${GITLAB_CLIENT_ID}, \"client_secret\": ${GITLAB_CLIENT_SECRET}},\n")
    string(APPEND text " \"bitbucket\": {\"client_id\": ${BITBUCKET_CLIENT_ID}, \"client_secret\": ${BITBUCKET_CLIENT_SECRET}},\n")
    string(APPEND text " \"redirect_host\": ${REDIRECT_HOST}}\n")
    set(file ${directory}/${VT_OAUTH_FILE_NAME})
    # Written only when it changed, so that a new configure does not touch it needlessly.
    set(previous "")
    if(EXISTS ${file})
        file(READ ${file} previous)
    endif()
    if(NOT previous STREQUAL text)
        file(WRITE ${file} "${text}")
    endif()
    file(CHMOD ${file} PERMISSIONS OWNER_READ OWNER_WRITE)

    if(VELDTRACK_GITLAB_CLIENT_SECRET STREQUAL "" AND VELDTRACK_BITBUCKET_CLIENT_SECRET STREQUAL "")
        set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    else()
        set(permissions OWNER_READ OWNER_WRITE)
    endif()
    install(FILES ${file} DESTINATION ${destination} PERMISSIONS ${permissions})
endfunction()

# Puts the test credentials of tests/fixtures/oauth beside the executable of `target`, where the
# credentials reader of that test program looks.
function(vt_copy_oauth_fixture target)
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E copy_if_different
                ${CMAKE_SOURCE_DIR}/tests/fixtures/oauth/${VT_OAUTH_FILE_NAME}
                $<TARGET_FILE_DIR:${target}>/${VT_OAUTH_FILE_NAME}
        VERBATIM)
endfunction()
