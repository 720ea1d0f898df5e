# cmake -D SOURCE=FILE -P CheckTestClass.cmake
# Fails unless the source of a test has a class that is named after it: SomeTopicTest in tst_some_topic.cpp.
get_filename_component(topic ${SOURCE} NAME_WE)
string(REGEX REPLACE "^tst_" "" topic ${topic})
string(REPLACE "_" "" topic ${topic})
file(READ ${SOURCE} text)
string(TOLOWER "${text}" text)
if(NOT text MATCHES "\nclass ${topic}test ")
    message(FATAL_ERROR "${SOURCE} has no class of that name: SomeTopicTest stands in tst_some_topic.cpp")
endif()
