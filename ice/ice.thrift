// Wire interface of the device's local Ice service. Thrift dispatches by
// method name, so only the calls this system makes need to be declared;
// the enumerations are kept whole so their numbers stay fixed.
namespace cpp ice

enum eJobPointType { UNKNOWN = 0, CENTER = 1, ENTRY = 2 }

enum eJoinRequestState {
    IDLE = 0, REQUESTED = 1, ACCEPTED = 2, JOINED = 3, SERVER_ERROR_UNKNOWN = 4,
    LEAVE_REQUESTED = 5, LEFT = 6
}

enum eRTKSourceType { UNKNOWN = 0, UDP = 1, SERIAL = 2, CAN = 3 }

enum eFTAssociationType { AT_ASSOCIATE = 0, AT_CREATE = 1 }

enum eFTType {
    UNKNOWN_FILE_TYPE = 0, JOB_DATA_PACKAGE = 1, COVERAGE_MAP = 2, GUIDANCE_LINE = 3,
    PRESCRIPTION_MAP = 4, SPRAY_ZONE = 5, BOUNDARIES = 6, WORK_ORDER = 7, UNUSED = 8,
    JOB_PROFILE = 9, PRODUCT_CONFIGURATION = 10, MACHINE_CONFIGURATION = 11, USER_PROFILE = 12,
    FIELD_COMPUTER_REPROGRAMMING = 13, GFF_FOLDER_STRUCTURE = 14, FARREACH_ARCHIVE = 15,
    SCOUNT_GROUP = 16, SCOUNT_FIELD_BOUNDARY = 17, SCOUT_SPRAY_ZONE = 18,
    SCOUT_NO_SPRAY_ZONE = 19, SCOUT_PLANT_ZONE = 20, SCOUT_NO_PLANT_ZONE = 21,
    SCOUT_POINTS = 22, SCOUT_LINE = 23, SCOUT_ZONE = 24, CAN_NODE_PROGRAM = 25, FEATURES = 26,
    LOG_FILE = 27, SCREEN_SHOT = 28, CORE_DUMP = 29, ISO_TASKDATA_XML = 30, STREET_MAP = 32,
    INTERNAL_SHAPE_FILES = 116, INTERNAL_IMAGE_FILES = 117, AGX_RDP = 118,
    INTERNAL_RAW_XML_FILES = 119, GRAINCART = 120, GRAINCART_REPORT = 121, FMIS_ARCHIVE = 122,
    AGX_REC_PSEUDOFILE = 123, AGX_RDP_XMLFILE = 124, AGX_RAD = 125, SCT_FLIP_ZONE = 126,
    WALLPAPER = 127, TEXT = 135, BLOB = 136, ENGINEERING = 137, CAN_MONITOR_FILTER = 138,
    UNLOCK = 139, WORK_ORDER_AS_APPLIED_DATA = 140, ECEF_GUIDANCE_LINE = 141,
    ECEF_SCOUTED_OBJECT = 142, CPRO_BACKUP = 143, CPRO_DIAGNOSTICS = 144,
    CLOUD_JOB_PACKAGE = 145
}

enum eFTDirection { UPLOAD = 0, DOWNLOAD = 1 }

enum eFTErrorType {
    NONE = 0, UNKNOWN = 128, INCORRECT_PLATFORM_TYPE = 129, INVALID_ISO_FORMAT = 130,
    MISSING_FILE = 131, INVALID_CRC = 132, FAILED_DUPLICATE_UUID = 133,
    FAILED_RESOURCE_ERROR = 134
}

enum eFTAckType { COMPLETE = 0, CANCEL = 1, ERROR = 2 }

enum eCellularSIMSubscriptionState {
    MODEM_3GPP_SUBSCRIPTION_STATE_UNKNOWN = 0, MODEM_3GPP_SUBSCRIPTION_STATE_UNPROVISIONED = 1,
    MODEM_3GPP_SUBSCRIPTION_STATE_PROVISIONED = 2, MODEM_3GPP_SUBSCRIPTION_STATE_OUT_OF_DATA = 3
}

enum eCellularLTERegistrationState {
    MODEM_3GPP_REGISTRATION_STATE_IDLE = 0, MODEM_3GPP_REGISTRATION_STATE_HOME = 1,
    MODEM_3GPP_REGISTRATION_STATE_SEARCHING = 2, MODEM_3GPP_REGISTRATION_STATE_DENIED = 3,
    MODEM_3GPP_REGISTRATION_STATE_UNKNOWN = 4, MODEM_3GPP_REGISTRATION_STATE_ROAMING = 5,
    MODEM_3GPP_REGISTRATION_STATE_HOME_SMS_ONLY = 6,
    MODEM_3GPP_REGISTRATION_STATE_ROAMING_SMS_ONLY = 7,
    MODEM_3GPP_REGISTRATION_STATE_EMERGENCY_ONLY = 8,
    MODEM_3GPP_REGISTRATION_STATE_HOME_CSFB_NOT_PREFERRED = 9,
    MODEM_3GPP_REGISTRATION_STATE_ROAMING_CSFB_NOT_PREFERRED = 10
}

enum eCellularModemState {
    MODEM_STATE_FAILED = -1, MODEM_STATE_UNKNOWN = 0, MODEM_STATE_INITIALIZING = 1,
    MODEM_STATE_LOCKED = 2, MODEM_STATE_DISABLED = 3, MODEM_STATE_DISABLING = 4,
    MODEM_STATE_ENABLING = 5, MODEM_STATE_ENABLED = 6, MODEM_STATE_SEARCHING = 7,
    MODEM_STATE_REGISTERED = 8, MODEM_STATE_DISCONNECTING = 9, MODEM_STATE_CONNECTING = 10,
    MODEM_STATE_CONNECTED = 11
}

enum eCellularDeviceTypes {
    NONE = 0, UNKNOWN = 1, INTERNAL = 2, OAKHOLLOW_DIRECT = 3, OAKHOLLOW_REMOTE = 4,
    YARDHUB_2_DIRECT = 5, YARDHUB_2_REMOTE = 6, YARDHUB_1_DIRECT = 7, YARDHUB_1_REMOTE = 8
}

enum eRemoteSupportState {
    NO_MODEM_CONNECTION = 0, NO_SUPPORT_VNC_STOPPED = 1, SUPPORT_REQUESTED = 2,
    SUPPORT_PENDING = 6, VIEWER_WAITING = 9, VIEWER_STOPPED = 12, VNC_DEVICE_STOPPED = 15,
    VNC_STARTING = 16, SUPPORT_ACTIVE = 18, STOPPING_SUPPORT = 19
}

enum eUpdateState {
    update_state_idle = 0, checking_for_updates = 1, new_update_list_avail = 2,
    get_update_metadata = 3, process_update_metadata = 4, download_available = 5,
    accepted_download = 6, downloading_usb = 7, downloading_ss = 8, install_available_usb = 9,
    install_available_ota = 10, accepted_install = 11, installing_update = 12,
    update_complete = 13, cancel_update = 14, postpone_update = 15, user_req_check = 16,
    update_failed = 17, ss_cancelled_update = 18, retry_download = 19, up_to_date = 20,
    requesting_install = 21, rebooting = 22
}

enum eOTAType { NORMAL = 0, AUTO_DOWNLOAD = 1, AUTO_INSTALL = 2 }

enum eAckType {
    ACCEPT_DOWNLOAD = 0, ACCEPT_INSTALL = 1, CANCEL = 2, ACCEPT_NOTIFY = 3, ACCEPT_LIST = 4
}

enum eDataType { json_STRING = 0, json_INTEGER = 1, json_DOUBLE = 2 }

enum eTelematics { MODEM = 2, GPS = 3, SGC = 4, SYSTEM = 5 }

enum eCategory {
    MANAGEMENT = 0, FILETRANSFER = 1, FIELDCOMPUTER = 2, REMOTESUPPORT = 3, SYSTEM = 5, OTA = 6,
    TELEMATICS = 7, SSH = 8
}

service Ice {
    void ping(),
    i32 status(1: i32 id),
    // An enum travels as i32, so list<eDataType> is list<i32> on the wire.
    i32 TEL_SendGeneric(1: string sType, 2: list<eDataType> eType, 3: list<string> sKey,
                        4: list<string> sValue),
    i32 TEL_SendGenericJSON(1: string sType, 2: string sPayload)
}
