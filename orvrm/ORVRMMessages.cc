#include "orvrm/ORVRMMessages.h"

namespace orvrm {
namespace {

// Entry 0 is reserved; null marks numbers this system does not use.
const char* const kTexts[kLastMessage + 1] = {
    /*   0 */ "Reserved: DO NOT USE!",
    /*   1 */ "2655-001 Attribute \"%1$s\" cannot be specified when defining a new resource.\n",
    /*   2 */ "2655-002 Attribute %1$s appears in request more than once.\n",
    /*   3 */ "2655-003 Class name %1$s is not recognized by this resource manager.\n",
    /*   4 */ "2655-004 Could not initialize control point for class %1$s.\n",
    /*   5 */ "2655-005 Attribute \"%1$s\" must be specified when defining a new resource.\n",
    /*   6 */ "2655-006 A node with the hostname %1$s already exists.\n",
    /*   7 */ "2655-007 An error occurred when trying to create a node hardware control resource.\n",
    /*   8 */ "2655-008 An error occurred during a rollback operation when recovering from a previous error. There will be data inconsistency problem. The error log entries prior to this entry can be used diagnose the problem.\n",
    /*   9 */ "2655-009 An error occurred when trying to remove a node hardware control resource.\n",
    /*  10 */ "2655-010 An error occurred when trying to update a node hardware control resource.\n",
    /*  11 */ "2655-011 Incorrect number of elements in input for converting a premanaged node to a managed node.\n",
    /*  12 */ "2655-012 Incorrect datatype for the elements in input for converting a premanaged node to a managed node.\n",
    /*  13 */ "2655-013 A node group with name %1$s already exists.\n",
    /*  14 */ "2655-014 ValidateNodes attribute value should be 1 or 0.\n",
    /*  15 */ "2655-015  Duplicate member names in list.\n",
    /*  16 */ "2655-016  The select string specified for the node group could not be validated. Please check the select string syntax.\n",
    /*  17 */ "2655-017  Both MemberList and SelectStr attributes cannot be specified for the same node group.\n",
    /*  18 */ "2655-018  Unable to define the node group because a row could not be added to the WEX Database.\n",
    /*  19 */ "2655-019  The node group cannot be removed because it is a member of another node group.\n",
    /*  20 */ "2655-020  Unable to remove node group %1$s because the WEX database could not be updated.\n",
    /*  21 */ "2655-021 Unable to update node group because the WEX database could not be updated.\n",
    /*  22 */ "2655-022  The member name %1$s specified as part of the MemberList is not a valid node.\n",
    /*  23 */ "2655-023  The node group %1$s cannot be added as a  member of the node group because it leads to cyclic dependency between the node groups.\n",
    /*  24 */ "2655-024  The ValidateNodes attribute is not set for node group %1$s, so it cannot be added as a member of the node group for which the ValidateNodes attribute is set.\n",
    /*  25 */ "2655-025  Unexpected Error in method %1$s.\n",
    /*  26 */ "2655-026  MemberList attribute cannot be specified for the node group because the SelectStr attribute is set.\n",
    /*  27 */ "2655-027  SelectStr attributes cannot be specified for the node group because the MemberList attribute is set.\n",
    /*  28 */ "2655-028  Incorrect number of fields in input to action %1$s.\n",
    /*  29 */ "2655-029  Incorrect datatype for the elements in input to action %1$s.\n",
    /*  30 */ "2655-030  At least one of the member names in input list already exists in the node group current member list.\n",
    /*  31 */ nullptr,  // not used by this system
    /*  32 */ "2655-032 A node with the specified node identifier exists in the management domain.\n",
    /*  33 */ "2655-033 Unable to select the node resource to be updated because there are two node resources, one matching the hostname and the other matching the specified node identifier.\n",
    /*  34 */ "2655-034 Unable to select the node resource to be updated because the node resource matching the specified hostname has an node identifier that is different from the specified node identifier.\n",
    /*  35 */ "2655-035 Hostname attribute value specified for the node is not valid.\n",
    /*  36 */ "2655-036 An error occurred when updating the distributed domain information in the PEX subsystem.\n",
    /*  37 */ "2655-037 An error occurred when updating the WEX database.\n",
    /*  38 */ "2655-038 An error occurred when verifying the validity of the request from the node.\n",
    /*  39 */ "2655-039 The exchange of public key between the node and the management server is not allowed.\n",
    /*  40 */ "2655-040 An error occurred when storing the public key of the node %1$s to the trusted host list file on the management server.\n",
    /*  41 */ "2655-041 An error occurred when retrieving the public key of the management server.\n",
    /*  42 */ "2655-042 An error occurred when preparing the response.\n",
    /*  43 */ "2655-043 The management server is not authorized to accept the manage request from node %1$s. \n",
    /*  44 */ "2655-044 Create or Update of the node resource failed.\n",
    /*  45 */ "2655-045 An error occurred when creating the message signature.\n",
    /*  46 */ "2655-046 An error occurred when verifying the message signature.\n",
    /*  47 */ "2655-047 An error occurred when initializing the logging facility. The return code was %1$d and the error message was %2$s.\n",
    /*  48 */ "2655-048 An error occurred when initializing the logging facility. The return code was %1$d.\n",
    /*  49 */ "2655-049 The following error message was returned by function %1$s: %2$s.",
    /*  50 */ "2655-050 Invalid input to action.\n",
    /*  51 */ "2655-051 Unable to set PEX subsystem as a distinguished daemon. Return code is %1$d.\n",
    /*  52 */ "2655-052 Failed to remove ManagementServer resource entry on node %1$s.\n",
    /*  53 */ "2655-053 The SelectStr attribute can be specified for a node group only if the ValidateNodes attribute is set to 1.\n",
    /*  54 */ "2655-054 AddUnrecognizedNode attribute value should be 1 or 0.\n",
    /*  55 */ "2655-055 The valid values for AllowManageRequest attribute are 0 or 1.\n",
    /*  56 */ "2655-056  The member name %1$s specified as part of the MemberList is not a valid node group.\n",
    /*  57 */ "2655-057 Could not find a resource corresponding to this management server on the node.\n",
    /*  58 */ "2655-058 The value provided to the RemoteShell attribute is not valid. Please provide a string that is not empty.\n",
    /*  59 */ "2655-059 SetupRemoteShell attribute value should be 1 or 0.\n",
    /*  60 */ "2655-060 Unable to retrieve the hostname of the node or the management server name as known to the node.\n",
    /*  61 */ nullptr,  // not used by this system
    /*  62 */ nullptr,  // not used by this system
    /*  63 */ nullptr,  // not used by this system
    /*  64 */ nullptr,  // not used by this system
    /*  65 */ "2655-065 Registry Synchronization Delay value should be greater than 0 and less than 60.\n",
    /*  66 */ "2655-066 Heartbeat frequency value should be greater than 0 and less than 900.\n",
    /*  67 */ "2655-067 Heartbeat sensitivity value should be greater than 1 and less than 100.\n",
    /*  68 */ "2655-068 The valid values for the power status mode attribute are 0, 1, 2 or 3.\n",
    /*  69 */ "2655-069 The valid values for the highly available mode attribute are 0, 1, 2 or 3.\n",
    /*  70 */ "2655-070 ConsoleSerialSpeed attribute must be set to a value between 1 and 230400 bps inclusive.",
    /*  71 */ "2655-071 The management server is not authorized to accept the PeerDomain setup request from node %1$s. \n",
    /*  72 */ "2655-072 The value provided to the RemoteCopyCmd attribute is not valid. Please provide a string that is not empty.\n",
    /*  73 */ "2655-073 Device status frequency value should be greater than 0 and less than 900.\n",
    /*  74 */ "2655-074 Device status sensitivity value should be greater than 1 and less than 100.\n",
    /*  75 */ "2655-200 Bad or missing parameters to invocation of class action.\n",
    /*  76 */ "2655-201 Node was not authenticated - action ignored.\n",
    /*  77 */ "2655-202 Unable to update PEX acl file.\n",
    /*  78 */ "2655-203 Unable to store the public key of the node.\n",
    /*  79 */ "2655-204 Memory allocation error while preparing action response.\n",
    /*  80 */ "2655-205 Input to NodeHwCtrl resource class action, PowerAction, is not valid.\n",
    /*  81 */ "2655-206 Could not find hardware control point for the node.\n",
    /*  82 */ "2655-207 Could not load hardware control library.\n",
    /*  83 */ "2655-208 [%1$s] Could not perform action because one or more node attributes: HWControlPoint, HWControlNodeId or PowerMethod are not set.\n",
    /*  84 */ "2655-209 [%1$s] Hostname attribute value specified for the node is not valid.\n",
    /*  85 */ "2655-210 [%1$s] Could not allocate system resources to perform action.\n",
    /*  86 */ "2655-211 There are no configured hardware control points with a PowerMethod of csp. Please run the cspcfgframes command to configure the csp hardware control points and then run this command again.\n",
    /*  87 */ "2655-212 Hardware control actions are not supported when the Kor.OrvCtrl attribute, HAMode = %1$d.\n",
    /*  88 */ "2655-213 Input to Kor.HwCtrlPoint resource class action, HAModeActive, is not valid.\nValid values are 0 or 1.\n",
    /*  89 */ "2655-215 A device group with name %1$s already exists.\n",
    /*  90 */ "2655-216 ValidateDevices attribute value should be 1 or 0.\n",
    /*  91 */ "2655-217  Duplicate member names in list.\n",
    /*  92 */ "2655-218  The select string specified for the device group could not be validated. Please check the select string syntax.\n",
    /*  93 */ "2655-219  Both MemberList and SelectStr attributes cannot be specified for the same device group.\n",
    /*  94 */ "2655-220  The device group cannot be removed because it is a member of another device group.\n",
    /*  95 */ "2655-221  The member name %1$s specified as part of the MemberList is not a valid device.\n",
    /*  96 */ "2655-222  The device group %1$s cannot be added as a  member of the device group because it leads to cyclic dependency between the device groups.\n",
    /*  97 */ "2655-223  The ValidateDevices attribute is not set for device group %1$s, so it cannot be added as a member of the device group for which the ValidateDevices attribute is set.\n",
    /*  98 */ "2655-224  MemberList attribute cannot be specified for the device group because the SelectStr attribute is set.\n",
    /*  99 */ "2655-225  SelectStr attributes cannot be specified for the device group because the MemberList attribute is set.\n",
    /* 100 */ "2655-226  At least one of the member names in input list already exists in the device group current member list.\n",
    /* 101 */ "2655-227 Name attribute value specified for the device is not valid.\n",
    /* 102 */ "2655-228 [%1$s] Power method %2$s error: %3$s.\n",
    /* 103 */ "2655-229 [%1$s] The PowerMethod value, %2$s, is not a valid power library or power command.\n",
    /* 104 */ "2655-230 Error running power command: %1$s\n",
    /* 105 */ "2655-231 Name attribute value, %1$s, specified for the device is not valid.  The Name value must not be an empty string, must be unique among all devices, and must be unique among all defined node hostnames.\n",
    /* 106 */ "2655-232 StatusMethod attribute value, %1$s, specified for the device is not valid.\n",
    /* 107 */ "2655-233 [%1$s] Could not perform action because one or more device attributes: HWControlPoint, HWControlDeviceId or PowerMethod are not set.\n",
    /* 108 */ "2655-234 [%1$s] Name attribute value specified for the device is not valid.\n",
    /* 109 */ "2655-235 Invalid output returned from PowerMethod command, %1$s: %2$s\n",
    /* 110 */ nullptr,  // not used by this system
    /* 111 */ "2655-076 Unable to acquire lock on SetupMMPeerDomain. Lock is currently in use.\n",
};

}  // namespace

bool isValidMessageNumber(int msgNum) {
    return msgNum >= 1 && msgNum <= kLastMessage && kTexts[msgNum] != nullptr;
}

const char* defaultMessageText(int msgNum) {
    if (msgNum <= 0 || msgNum > kLastMessage) {
        return kBadMessageText;
    }
    if (kTexts[msgNum] == nullptr) {
        return kTexts[0];
    }
    return kTexts[msgNum];
}

}  // namespace orvrm
