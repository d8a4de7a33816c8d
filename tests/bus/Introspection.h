#pragma once

#include <string>
#include <vector>

/// The members of one interface in D-Bus introspection XML, in their order, each as one line: "property StatusQV y
/// read", "method Add in:s out:u", "signal Done b". Annotations follow their member; those that only say the default
/// are left out. Layout, comments and names of arguments make no difference.
std::vector<std::string> membersOf(const std::string& xml, const std::string& interface);
