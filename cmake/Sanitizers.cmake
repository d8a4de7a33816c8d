# The sanitizers are set for the whole build: a library built without them would hide what they look for.
if(VORLAN_SANITIZE)
  add_compile_options(-fsanitize=${VORLAN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VORLAN_SANITIZE})
  # The check of an object's type opens a pipe to look at memory. In a daemon that has run out of descriptors, which the
  # suite tests, it takes every object for a wrong one.
  add_compile_options(-fno-sanitize=vptr)
endif()
