# The sanitizers are set for the whole build: a library built without them would hide what they look for.
if(VORLAN_SANITIZE)
  add_compile_options(-fsanitize=${VORLAN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VORLAN_SANITIZE})
endif()
