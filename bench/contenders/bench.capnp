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

struct Usage {
  bundleName @0 :Text;
  uid @1 :Int32;
  operationGroup @2 :Text;
  times @3 :Int32;
  operationMode @4 :Int32;
  appState @5 :Int32;
  screenState @6 :Int32;
  beginTimestamp @7 :Int64;
  endTimestamp @8 :Int64;
}

struct Row {
  bundleName @0 :Text;
  fingerprint @1 :Text;
  versionCode @2 :Int64;
  policyValue @3 :Int64;
}

interface Service {
  info @0 (name :Text, userId :Int32, interested :List(Text)) -> (result :Int32, answer :List(Info));
  set @1 (bundleName :Text, uid :Int32, permissionGroup :Text, checkedState :Text, flagsMask :Int64,
          flagsValue :Int64) -> (result :Int32, answer :Bool);
  usage @2 (bundleNames :List(Text), userIds :List(Int32), operationGroups :List(Text), beginTimestamp :Int64,
            endTimestamp :Int64, limit :Int32, order :Int32) -> (result :Int32, answer :List(Usage));
  row @3 (policyName :Text, bundleNames :List(Text)) -> (result :Int32, answer :List(Row));
}
