@0xbf3c1a2d7e5f4a61;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::wire");

struct Info {
  bundleName @0 :Text;
  uid @1 :Int32;
  permissionGroup @2 :Text;
  checkedState @3 :Text;
  shownStates @4 :List(Text);
  disabledStates @5 :List(Text);
  disabledReason @6 :Text;
  flags @7 :Int64;
}

interface Service {
  info @0 (name :Text, userId :Int32, interested :List(Text)) -> (result :Int32, answer :List(Info));
  set @1 (bundleName :Text, uid :Int32, permissionGroup :Text, checkedState :Text, flagsMask :Int64,
          flagsValue :Int64) -> (result :Int32, answer :Bool);
}
