# expect(CODE OUT ERR ARGUMENT...): runs tq and compares its exit code, and its two outputs with regular expressions.
set(failures 0)
function(expect code out err)
    execute_process(COMMAND ${RUN} ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
    string(REPLACE "\r" "" output "${output}")
    string(REPLACE "\r" "" errors "${errors}")
    if(NOT result STREQUAL code OR NOT output MATCHES "^(${out})$" OR NOT errors MATCHES "^(${err})$")
        message("tq ${ARGN}\n  ended with ${result}, expected ${code}\n  output: ${output}\n  expected: ${out}\n  errors: ${errors}\n  expected: ${err}")
        math(EXPR failures "${failures} + 1")
        set(failures ${failures} PARENT_SCOPE)
    endif()
endfunction()

set(head "Code +Number +Name +Level +Source +Facility +Text\n")
# One number in each of its forms.
foreach(form 5 0x5 0x00000005 ERROR_ACCESS_DENIED error_access_denied)
    expect(0 "${head}0x00000005 +5 +ERROR_ACCESS_DENIED +Error +Unknown +0 [A-Za-z]+ +[^\n]+\n" "" error ${form})
endforeach()
foreach(form 0x80070005 -2147024891 2147942405 E_ACCESSDENIED)
    expect(0 "${head}0x80070005 +-2147024891 +E_ACCESSDENIED, ERROR_ACCESS_DENIED +Warning +SubSystem +7 Win32 +[^\n]+\n" "" error ${form})
endforeach()
expect(0 "${head}0xC0000005 .*STATUS_ACCESS_VIOLATION +Error .*\n0x00000002 .*ERROR_FILE_NOT_FOUND.*\n" "" error 0xC0000005 2)
expect(1 "${head}0x0765FFFF +124125183 +- +Success .*unknown\n" "" error 0x0765FFFF)

# A module's own messages.
expect(0 "${head}0xCFFF4002 .*%2.*\n" "" error --module ${MODULE} 0xCFFF4002)
expect(1 "${head}0xCFFF4001 [^\n]+\n0x0765FFFF [^\n]* unknown\n" "" error --module ${MODULE} 0xCFFF4001 0x0765FFFF)
expect(2 "" "tq: no-such-file can't be read as a module: [^\n]*\n" error --module no-such-file 5)

# JSON.
expect(0 "\\[\n  {\"code\": \"0x80070005\", \"number\": -2147024891, \"names\": \\[\"E_ACCESSDENIED\", \"ERROR_ACCESS_DENIED\"\\], \"level\": \"Warning\", \"source\": \"SubSystem\", \"facility\": {\"number\": 7, \"name\": \"Win32\"}, \"text\": \"[^\"]+\"}\n\\]\n"
    "" error --json 0x80070005)
expect(1 ".*\"names\": \\[\\], .*\"text\": null}\n\\]\n" "" error --json 0x0765FFFF)

# Accounts, by name and by identifier.
set(administrators "Identifier +S-1-5-32-544\nName +Administrators\nDomain +BUILTIN\nUse +SidTypeAlias\nClasses +administrator\n +included with Everyone\nIntegrity +0x3000 High\nGroups +-\nRights +(-\n|Se[^P]*)Privileges +(-|SeBackupPrivilege\n[^:]*SeDebugPrivilege)\n[^:]*")
foreach(form Administrators S-1-5-32-544)
    expect(0 "${administrators}" "" sid ${form})
endforeach()
expect(0 "${administrators}\nIdentifier +S-1-1-0\nName +Everyone\nDomain +-\n.*" "" sid Administrators Everyone)
expect(0 "Identifier +(S-1-5-21-[0-9-]+)\nName +[^\n]+\n.*Use +SidTypeUser\n.*Groups +[^-\n][^\n]*\n.*" "" sid)
expect(1 "Identifier +S-1-5-21-1-2-3-4\nName +-\nDomain +-\nUse +SidTypeUnknown\n.*" "" sid S-1-5-21-1-2-3-4)
expect(0 "\\[\n  {\"sid\": \"S-1-1-0\", \"name\": \"Everyone\", \"domain\": \"\", \"use\": \"SidTypeWellKnownGroup\", \"classes\": \\[\"not authenticated\", \"included with Everyone\"\\], \"integrity\": {\"level\": 4096, \"name\": \"Low\"}, \"groups\": \\[\\], \"rights\": \\[[^]]*\\], \"privileges\": \\[[^]]*\\], \"notKnown\": \\[\\]}\n\\]\n"
    "" sid --json S-1-1-0)
foreach(form no-such-account user:Administrators group:no-such-group "two words")
    expect(2 "" "tq: '${form}' is neither an account nor a security identifier\n" sid ${form})
endforeach()
foreach(form S-1- S-1-5-x)
    expect(2 "Identifier +S-1-1-0\n.*\n\nIdentifier +S-1-5-7\n.*" "tq: '${form}' is no security identifier\n" sid S-1-1-0 ${form} S-1-5-7)
endforeach()
expect(2 "" "tq: '--colour' is no option of tq sid\n" sid --colour)

# Who one is.
set(who "User +[^\n]+ S-1-5-21-[0-9-]+ *\nElevated +(yes|no) *\nIntegrity +[A-Z][a-z]+ +0x[23]000 *\nSession +[0-9]+ *\nOwner +[^\n]+\nPrimary group +[^\n]+\nGroups +")
expect(0 "${who}.*Everyone +enabled, mandatory\n.*\nPrivileges +Se[^\n]+\n.* +SeChangeNotifyPrivilege +enabled\n.*" "" token)
expect(0 "{\"user\": {\"sid\": \"S-1-5-21-[^\n]+{\"sid\": \"S-1-1-0\", \"name\": \"Everyone\", \"attributes\": \\[\"enabled\", \"mandatory\"\\]}.*{\"name\": \"SeChangeNotifyPrivilege\", \"enabled\": true}.*}\n" "" token --json)
expect(2 "" "tq: 'root' is no option of tq token\n" token root)

# Lists: what is set is shown, as a text that can be set again.
set(file ${CMAKE_CURRENT_BINARY_DIR}/tq_acl_test.txt)
file(WRITE ${file} "text")
if(NOT MODULE MATCHES "dll$")  # Wine keeps no more than mode bits
    expect(0 "" "" acl ${file} --set D:P --allow Everyone FR)
    expect(0 "O:[^\n]*D:P[^(]*\\(A;;FR;;;WD\\)\n" "" acl --sddl ${file})
    expect(0 "" "" acl ${file} --deny Everyone FX --allow Administrators FA)
    expect(0 ".*D:P[^(]*\\(D;;FX;;;WD\\)\\(A;;FR;;;WD\\)\\(A;;FA;;;BA\\)\n" "" acl --sddl ${file})
    expect(0 "{\"object\": .*\"kind\": 1, \"flags\": 0, .*\"sid\": \"S-1-1-0\".*\n\\]}\n" "" acl --json ${file})
    expect(0 ".*D:P[^(]*\\(A;;FA;;;BA\\)\n" "" acl --sddl ${file} --remove Everyone)
endif()
expect(1 "" "tq: [^\n]*no-such-file.*" acl no-such-file)
expect(2 "" "tq: 'X:' is no SDDL: .*" acl ${file} --set X:)
expect(2 "" "tq: name the object before its changes\n" acl --remove Everyone)
file(REMOVE ${file})

# Services: the rest needs a manager, and is in TqServiceTest.cpp.
expect(0 "usage: tq service list .*" "" service --help)
expect(2 "" "tq: 'lst' is no word of tq service; tq service --help lists them\n" service lst)

# One clear line and exit code 2 for a wrong command line.
expect(2 "" "tq: [^\n]+\n")
expect(2 "" "tq: 'eror' is no word of tq; tq --help lists them\n" eror 5)
expect(2 "" "tq: name at least one error code; tq error --help tells how\n" error)
expect(2 "" "tq: 'NO_SUCH_NAME' is neither a number nor the name of an error code\n" error NO_SUCH_NAME)
foreach(form 4294967296 -2147483649 0x100000000 5x 0x5g)
    expect(2 "" "tq: '${form}' is no 32-bit error code\n" error ${form})
endforeach()
expect(2 "" "tq: --module needs a value\n" error --module)
expect(2 "" "tq: '--colour' is no option of tq error\n" error --colour 5)
expect(0 "usage: tq WORD.*" "" --help)
expect(0 "usage: tq error.*" "" error --help)
expect(0 "usage: tq log.*" "" log --help)
expect(0 "usage: tq sid.*" "" sid --help)
expect(0 "usage: tq token.*" "" token --help)
expect(0 "tq [0-9]+\\.[0-9]+\\.[0-9]+\n" "" --version)

if(failures)
    message(FATAL_ERROR "${failures} failed")
endif()
