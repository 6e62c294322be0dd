// Elliptic curves over prime fields in short Weierstrass form, y² = x³ + ax + b, with integers of any size: the curves of
// ICAO Doc 9303-11 section 9.5.1 from 224 bits on (FIPS 186-4; RFC 5639). Fast enough for one chip, and nothing is hidden.

/** By number of the standardised domain parameters: name, p, a, b, x and y of the base point, order. */
const kParameters = {
  10: ['P-224',
    'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF000000000000000000000001',
    '-3',
    'B4050A850C04B3ABF54132565044B0B7D7BFD8BA270B39432355FFB4',
    'B70E0CBD6BB4BF7F321390B94A03C1D356C21122343280D6115C1D21',
    'BD376388B5F723FB4C22DFE6CD4375A05A07476444D5819985007E34',
    'FFFFFFFFFFFFFFFFFFFFFFFFFFFF16A2E0B8F03E13DD29455C5C2A3D'],
  11: ['brainpoolP224r1',
    'D7C134AA264366862A18302575D1D787B09F075797DA89F57EC8C0FF',
    '68A5E62CA9CE6C1C299803A6C1530B514E182AD8B0042A59CAD29F43',
    '2580F63CCFE44138870713B1A92369E33E2135D266DBB372386C400B',
    '0D9029AD2C7E5CF4340823B2A87DC68C9E4CE3174C1E6EFDEE12C07D',
    '58AA56F772C0726F24C6B89E4ECDAC24354B9E99CAA3F6D3761402CD',
    'D7C134AA264366862A18302575D0FB98D116BC4B6DDEBCA3A5A7939F'],
  12: ['P-256',
    'FFFFFFFF00000001000000000000000000000000FFFFFFFFFFFFFFFFFFFFFFFF',
    '-3',
    '5AC635D8AA3A93E7B3EBBD55769886BC651D06B0CC53B0F63BCE3C3E27D2604B',
    '6B17D1F2E12C4247F8BCE6E563A440F277037D812DEB33A0F4A13945D898C296',
    '4FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51F5',
    'FFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551'],
  13: ['brainpoolP256r1',
    'A9FB57DBA1EEA9BC3E660A909D838D726E3BF623D52620282013481D1F6E5377',
    '7D5A0975FC2C3057EEF67530417AFFE7FB8055C126DC5C6CE94A4B44F330B5D9',
    '26DC5C6CE94A4B44F330B5D9BBD77CBF958416295CF7E1CE6BCCDC18FF8C07B6',
    '8BD2AEB9CB7E57CB2C4B482FFC81B7AFB9DE27E1E3BD23C23A4453BD9ACE3262',
    '547EF835C3DAC4FD97F8461A14611DC9C27745132DED8E545C1D54C72F046997',
    'A9FB57DBA1EEA9BC3E660A909D838D718C397AA3B561A6F7901E0E82974856A7'],
  14: ['brainpoolP320r1',
    'D35E472036BC4FB7E13C785ED201E065F98FCFA6F6F40DEF4F92B9EC7893EC28FCD412B1F1B32E27',
    '3EE30B568FBAB0F883CCEBD46D3F3BB8A2A73513F5EB79DA66190EB085FFA9F492F375A97D860EB4',
    '520883949DFDBC42D3AD198640688A6FE13F41349554B49ACC31DCCD884539816F5EB4AC8FB1F1A6',
    '43BD7E9AFB53D8B85289BCC48EE5BFE6F20137D10A087EB6E7871E2A10A599C710AF8D0D39E20611',
    '14FDD05545EC1CC8AB4093247F77275E0743FFED117182EAA9C77877AAAC6AC7D35245D1692E8EE1',
    'D35E472036BC4FB7E13C785ED201E065F98FCFA5B68F12A32D482EC7EE8658E98691555B44C59311'],
  15: ['P-384',
    'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFEFFFFFFFF0000000000000000FFFFFFFF',
    '-3',
    'B3312FA7E23EE7E4988E056BE3F82D19181D9C6EFE8141120314088F5013875AC656398D8A2ED19D2A85C8EDD3EC2AEF',
    'AA87CA22BE8B05378EB1C71EF320AD746E1D3B628BA79B9859F741E082542A385502F25DBF55296C3A545E3872760AB7',
    '3617DE4A96262C6F5D9E98BF9292DC29F8F41DBD289A147CE9DA3113B5F0B8C00A60B1CE1D7E819D7A431D7C90EA0E5F',
    'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFC7634D81F4372DDF581A0DB248B0A77AECEC196ACCC52973'],
  16: ['brainpoolP384r1',
    '8CB91E82A3386D280F5D6F7E50E641DF152F7109ED5456B412B1DA197FB71123ACD3A729901D1A71874700133107EC53',
    '7BC382C63D8C150C3C72080ACE05AFA0C2BEA28E4FB22787139165EFBA91F90F8AA5814A503AD4EB04A8C7DD22CE2826',
    '04A8C7DD22CE28268B39B55416F0447C2FB77DE107DCD2A62E880EA53EEB62D57CB4390295DBC9943AB78696FA504C11',
    '1D1C64F068CF45FFA2A63A81B7C13F6B8847A3E77EF14FE3DB7FCAFE0CBD10E8E826E03436D646AAEF87B2E247D4AF1E',
    '8ABE1D7520F9C2A45CB1EB8E95CFD55262B70B29FEEC5864E19C054FF99129280E4646217791811142820341263C5315',
    '8CB91E82A3386D280F5D6F7E50E641DF152F7109ED5456B31F166E6CAC0425A7CF3AB6AF6B7FC3103B883202E9046565'],
  17: ['brainpoolP512r1',
    'AADD9DB8DBE9C48B3FD4E6AE33C9FC07CB308DB3B3C9D20ED6639CCA703308717D4D9B009BC66842AECDA12AE6A380E6' +
      '2881FF2F2D82C68528AA6056583A48F3',
    '7830A3318B603B89E2327145AC234CC594CBDD8D3DF91610A83441CAEA9863BC2DED5D5AA8253AA10A2EF1C98B9AC8B5' +
      '7F1117A72BF2C7B9E7C1AC4D77FC94CA',
    '3DF91610A83441CAEA9863BC2DED5D5AA8253AA10A2EF1C98B9AC8B57F1117A72BF2C7B9E7C1AC4D77FC94CADC083E67' +
      '984050B75EBAE5DD2809BD638016F723',
    '81AEE4BDD82ED9645A21322E9C4C6A9385ED9F70B5D916C1B43B62EEF4D0098EFF3B1F78E2D0D48D50D1687B93B97D5F' +
      '7C6D5047406A5E688B352209BCB9F822',
    '7DDE385D566332ECC0EABFA9CF7822FDF209F70024A57B1AA000C55B881F8111B2DCDE494A5F485E5BCA4BD88A2763AE' +
      'D1CA2B2FA8F0540678CD1E0F3AD80892',
    'AADD9DB8DBE9C48B3FD4E6AE33C9FC07CB308DB3B3C9D20ED6639CCA70330870553E5C414CA92619418661197FAC1047' +
      '1DB1D381085DDADDB58796829CA90069'],
  18: ['P-521',
    '01FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF' +
      'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF',
    '-3',
    '0051953EB9618E1C9A1F929A21A0B68540EEA2DA725B99B315F3B8B489918EF109E156193951EC7E937B1652C0BD3BB1' +
      'BF073573DF883D2C34F1EF451FD46B503F00',
    '00C6858E06B70404E9CD9E3ECB662395B4429C648139053FB521F828AF606B4D3DBAA14B5E77EFE75928FE1DC127A2FF' +
      'A8DE3348B3C1856A429BF97E7E31C2E5BD66',
    '011839296A789A3BC0045C8A5FB42C7D1BD998F54449579B446817AFBD17273E662C97EE72995EF42640C550B9013FAD' +
      '0761353C7086A272C24088BE94769FD16650',
    '01FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFA51868783BF2F966B7FCC0148F709' +
      'A5D03BB5C9B8899C47AEBB6FB71E91386409'],
};

const mod = (value, modulus) => {
  const rest = value % modulus;
  return rest < 0n ? rest + modulus : rest;
};

export function inverse(value, modulus) {
  let [r, next] = [modulus, mod(value, modulus)];
  let [t, other] = [0n, 1n];
  while (next !== 0n) {
    const quotient = r / next;
    [r, next] = [next, r - quotient * next];
    [t, other] = [other, t - quotient * other];
  }
  return mod(t, modulus);
}

/** A number as big-endian bytes of a fixed size, and back. */
export const toBytes = (value, size) => Buffer.from(value.toString(16).padStart(2 * size, '0'), 'hex');
export const toNumber = (bytes) => BigInt(`0x${Buffer.from(bytes).toString('hex') || '0'}`);

/** One curve. Points are { x, y }; the neutral one is null. `size` is the bytes of a coordinate. */
export class Curve {
  constructor([name, ...parameters]) {
    const [p, a, b, x, y, n] = parameters.map((text) => (text === '-3' ? -3n : BigInt(`0x${text}`)));
    Object.assign(this, { name, p, a: mod(a, p), b, n, base: { x, y }, size: Math.ceil(p.toString(2).length / 8) });
  }

  has({ x, y }) {
    return x < this.p && y < this.p && mod(y * y - (x * x + this.a) * x - this.b, this.p) === 0n;
  }

  add(first, second) {
    if (!first || !second) return first ?? second;
    const { p, a } = this;
    if (first.x === second.x && mod(first.y + second.y, p) === 0n) return null;
    const slope = first.x === second.x
      ? (3n * first.x * first.x + a) * inverse(2n * first.y, p) : (second.y - first.y) * inverse(second.x - first.x, p);
    const x = mod(slope * slope - first.x - second.x, p);
    return { x, y: mod(slope * (first.x - x) - first.y, p) };
  }

  /** `scalar` times a point: bit by bit in Jacobian coordinates. */
  multiply(scalar, point) {
    const { p } = this;
    let sum = null;
    for (const bit of mod(scalar, this.n).toString(2)) {
      sum = this.#double(sum);
      if (bit === '1') sum = this.#addAffine(sum, point);
    }
    if (!sum || sum.z === 0n) return null;
    const z = inverse(sum.z, p);
    return { x: mod(sum.x * z * z, p), y: mod(sum.y * z * z * z, p) };
  }

  #double(point) {
    if (!point || point.y === 0n) return null;
    const { p, a } = this;
    const yy = mod(point.y * point.y, p);
    const s = mod(4n * point.x * yy, p);
    const m = mod(3n * point.x * point.x + a * point.z ** 4n, p);
    const x = mod(m * m - 2n * s, p);
    return { x, y: mod(m * (s - x) - 8n * yy * yy, p), z: mod(2n * point.y * point.z, p) };
  }

  #addAffine(point, { x, y }) {
    if (!point) return { x, y, z: 1n };
    const { p } = this;
    const zz = mod(point.z * point.z, p);
    const h = mod(x * zz - point.x, p);
    const r = mod(y * zz * point.z - point.y, p);
    if (h === 0n) return r === 0n ? this.#double(point) : null;
    const hh = mod(h * h, p);
    const v = mod(point.x * hh, p);
    const sumX = mod(r * r - hh * h - 2n * v, p);
    return { x: sumX, y: mod(r * (v - sumX) - point.y * hh * h, p), z: mod(point.z * h, p) };
  }

  /** A point as 04, x and y (BSI TR-03111 section 3.2.1); the neutral one is a single 00. */
  encode(point) {
    return point ? Buffer.concat([Buffer.of(4), toBytes(point.x, this.size), toBytes(point.y, this.size)]) : Buffer.of(0);
  }

  /** The point that bytes stand for; undefined when they are not one of the curve, or the neutral one. */
  decode(bytes) {
    if (bytes.length !== 1 + 2 * this.size || bytes[0] !== 4) return undefined;
    const point = { x: toNumber(bytes.subarray(1, 1 + this.size)), y: toNumber(bytes.subarray(1 + this.size)) };
    return this.has(point) ? point : undefined;
  }
}

export const CURVES = Object.freeze(Object.fromEntries(
  Object.entries(kParameters).map(([id, parameters]) => [id, new Curve(parameters)])));
