@0xb3a1f0c7d25e4968;

# The benchmarks' items in Cap'n Proto: ten fields each, as the library's own.

struct Date {
  seconds @0 :Int64;
  nanoseconds @1 :UInt32;
}

struct Item {
  kind @0 :Text;
  name @1 :Text;
  url @2 :Text;
  category @3 :Text;
  size @4 :Int64;
  created @5 :Date;
  modified @6 :Date;
  opened @7 :Date;
  deletable @8 :Bool;
  revealable @9 :Bool;
}

interface Storage {
  resources @0 () -> (items :List(Item));
}
