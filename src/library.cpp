// pam_mg_acl.so is assembled from the subsystem libraries (see CMakeLists.txt);
// this translation unit only gives the shared object a source of its own.
