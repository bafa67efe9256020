# The DNS decoder's message reader.
if(TARGET kest_dns_message)
  kest_fuzz_target(dns kest_dns_message)
endif()
