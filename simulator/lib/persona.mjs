// Who takes part in a simulated read when nothing else is said: the application and device that read, and the
// person whose card it is. All of it is specimen data that belongs to nobody.

/** Arguments of `initSdk`, by name; `ip` and `port` are added when the decode server's address is known. */
export const DEFAULT_IDENTITY = Object.freeze({
  appid: 'SIMULATEDREADER00001',
  decodeMode: 0,
  readMode: 2,
  envIdCode: 268,
  filePath: '',
  packageName: 'com.example.reader',
  terId: 0x51,
  reqidType: 1,
  sn: 'SIMULATED-DEVICE-0001',
});

/** The decoded person, as it stands in the "info" member of a result. */
export const SPECIMEN_PERSON = Object.freeze({
  name: '样本甲',
  sex: '女',
  nation: '汉',
  birthDate: '19900101',
  address: '样本省样本市样本区样本路1号',
  idNumber: '000000199001010000',
  authority: '样本市公安局样本分局',
  validFrom: '20200101',
  validTo: '20400101',
});

/** The card key that simulated cards and servers share unless a persona gives another. */
export const DEVELOPMENT_CARD_KEY = '53494D554C4154454420434152442030';

/** What the reader fixes by itself, whatever the application says. */
export const FIXED_BY_READER = Object.freeze({ queryInfo: [1, 0, 0], frameFlag: 1, readChunkSize: 212 });

/**
 * The identity that a decode server should expect from an application that calls `initSdk` with these
 * arguments: trimmed texts, the low eight bits of the terminal id, and what the reader adds by itself.
 */
export function expectedPersona(identity) {
  const trimmed = (text) => text?.replace(/^[ \t]+|[ \t]+$/g, '');
  return {
    appid: trimmed(identity.appid),
    sn: trimmed(identity.sn),
    packageName: identity.packageName,
    terId: identity.terId === undefined ? undefined : identity.terId & 0xff,
    reqidType: identity.reqidType,
    readMode: identity.readMode,
    decodeMode: identity.decodeMode,
    queryInfo: identity.queryInfo ?? FIXED_BY_READER.queryInfo,
    frameFlag: identity.frameFlag ?? FIXED_BY_READER.frameFlag,
  };
}
