-- What wixl does not know, one statement a line, for the package that it has made.
-- The settings outlive the program (0x10), and are written only if given:
--     msiexec /i Keldwick.msi IDENTSERVER=identity.example.net IDENTPROTOCOL=1 /qn
UPDATE Component SET Attributes = 276 WHERE Component = 'Settings'
UPDATE Component SET Attributes = 276, Condition = 'IDENTSERVER' WHERE Component = 'Server'
UPDATE Component SET Attributes = 276, Condition = 'IDENTPROTOCOL' WHERE Component = 'Protocol'
UPDATE Property SET Value = 'WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;IDENTSERVER;IDENTPROTOCOL;REMOVESETTINGS' WHERE Property = 'SecureCustomProperties'
-- and go with it when that is asked for: msiexec /x Keldwick.msi REMOVESETTINGS=1 /qn
-- (34: a program; 0x40: whatever it says; 0x400 and 0x800: with the installation's rights)
INSERT INTO CustomAction (Action, Type, Source, Target) VALUES ('RemoveSettings', 3170, 'TARGETDIR', '"[System64Folder]reg.exe" delete "HKLM\SOFTWARE\Vantorel Systems\Keldwick" /f')
INSERT INTO InstallExecuteSequence (Action, Condition, Sequence) VALUES ('RemoveSettings', 'REMOVE="ALL" AND REMOVESETTINGS="1" AND NOT UPGRADINGPRODUCTCODE', 3501)
-- Started after the system's own services. After a failure it is started again in a minute, each time.
CREATE TABLE MsiServiceConfig (MsiServiceConfig CHAR(72) NOT NULL, Name CHAR(255) NOT NULL, Event SHORT NOT NULL, ConfigType LONG NOT NULL, Argument CHAR(255), Component_ CHAR(72) NOT NULL PRIMARY KEY MsiServiceConfig)
INSERT INTO MsiServiceConfig (MsiServiceConfig, Name, Event, ConfigType, Argument, Component_) VALUES ('DelayedStart', 'Keldwick', 1, 3, '1', 'Program')
INSERT INTO MsiServiceConfig (MsiServiceConfig, Name, Event, ConfigType, Argument, Component_) VALUES ('FailureFlag', 'Keldwick', 1, 4, '1', 'Program')
CREATE TABLE MsiServiceConfigFailureActions (MsiServiceConfigFailureActions CHAR(72) NOT NULL, Name CHAR(255) NOT NULL, Event SHORT NOT NULL, ResetPeriod LONG, RebootMessage CHAR(255), Command CHAR(255), Actions CHAR(255), DelayActions CHAR(255), Component_ CHAR(72) NOT NULL PRIMARY KEY MsiServiceConfigFailureActions)
INSERT INTO MsiServiceConfigFailureActions (MsiServiceConfigFailureActions, Name, Event, ResetPeriod, Actions, DelayActions, Component_) VALUES ('Recovery', 'Keldwick', 1, 86400, '1[~]1[~]1', '60000[~]60000[~]60000', 'Program')
INSERT INTO InstallExecuteSequence (Action, Condition, Sequence) VALUES ('MsiConfigureServices', 'VersionMsi >= "5.00"', 5850)
