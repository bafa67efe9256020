# The line-dialogue decoders' reading (decoders/transport/LineDialog.h with the
# SSH, SMTP, POP3, IMAP and FTP rules), on SDK classes.
kest_fuzz_target(banners kest_static)
target_include_directories(banners_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/decoders)
