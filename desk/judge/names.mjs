// Names in national characters as they must stand in the machine-readable zone (ICAO Doc 9303-3 section 6).

/** Latin letters that are more than a base letter with marks; the first form is the one that is recommended. */
const kLatin = {
  Ä: ['AE', 'A'], Å: ['AA', 'A'], Æ: ['AE'], Ð: ['D'], Đ: ['D'], Ħ: ['H'], I: ['I'], İ: ['I'], ı: ['I'], Ĳ: ['IJ'], Ł: ['L'],
  Ŋ: ['N'], Ñ: ['N', 'NXX'], Ö: ['OE', 'O'], Ø: ['OE'], Œ: ['OE'], ẞ: ['SS'], ß: ['SS'], Þ: ['TH'], Ŧ: ['T'],
  Ü: ['UE', 'UXX', 'U'],
};

const kCyrillic = {
  А: ['A'], Б: ['B'], В: ['V'], Г: ['G', 'H'], Ґ: ['G'], Д: ['D'], Ђ: ['D'], Ѓ: ['G'], Е: ['E'], Ё: ['E', 'IO'], Є: ['IE'],
  Ж: ['ZH', 'Z'], З: ['Z'], Ѕ: ['DZ'], И: ['I', 'Y'], І: ['I'], Ї: ['I'], Й: ['I'], Ј: ['J'], К: ['K'], Ќ: ['K'], Л: ['L'],
  Љ: ['LJ'], М: ['M'], Н: ['N'], Њ: ['NJ'], О: ['O'], П: ['P'], Р: ['R'], С: ['S'], Т: ['T'], Ћ: ['C'], У: ['U'], Ў: ['U'],
  Ф: ['F'], Х: ['KH', 'H'], Ц: ['TS', 'C'], Ч: ['CH', 'C'], Џ: ['DJ'], Ш: ['SH', 'S'], Щ: ['SHCH', 'SHT'], Ъ: ['IE'],
  Ы: ['Y'], Ь: [''], Э: ['E'], Ю: ['IU'], Я: ['IA'],
};

const kArabic = {
  ء: ['XE'], آ: ['XAA'], أ: ['XAE'], ؤ: ['U'], إ: ['I'], ئ: ['XI'], ا: ['A'], ب: ['B'], ة: ['XTA', 'XAH'], ت: ['T'], ث: ['XTH'],
  ج: ['J'], ح: ['XH'], خ: ['XKH'], د: ['D'], ذ: ['XDH'], ر: ['R'], ز: ['Z'], س: ['S'], ش: ['XSH'], ص: ['XSS'], ض: ['XDZ'],
  ط: ['XTT'], ظ: ['XZZ'], ع: ['E'], غ: ['G'], ف: ['F'], ق: ['Q'], ك: ['K'], ل: ['L'], م: ['M'], ن: ['N'], ه: ['H'], و: ['W'],
  ى: ['XAY'], ي: ['Y'],
};

const kLetters = { ...kLatin, ...kCyrillic, ...kArabic };
const kDropped = /['’.\u064B-\u0652]/u; // apostrophes and vowel marks have no place in the zone
const kBlank = /[\s,<-]/u;

/** The forms that a letter may take; nothing for one that no table has. */
function formsOf(letter) {
  if (/[A-Z0-9]/.test(letter)) return [letter];
  if (kBlank.test(letter)) return [' '];
  if (kDropped.test(letter)) return [''];
  if (kLetters[letter]) return kLetters[letter];
  const base = letter.normalize('NFD').replace(/\p{M}/gu, '');
  return /^[A-Z]+$/.test(base) ? [base] : kLetters[base];
}

const squeezed = (text) => text.replace(/ +/g, ' ').trim();

/**
 * @param {string} text  a name in national characters
 * @returns {{text: string, unknown: string[]}} text in the letters of a zone with the recommended forms, and the letters
 *   that no table has
 */
export function transliterate(text) {
  const letters = [...text.normalize('NFC').toUpperCase().normalize('NFC')];
  const unknown = [...new Set(letters.filter((letter) => !formsOf(letter)))];
  return { text: squeezed(letters.map((letter) => formsOf(letter)?.[0] ?? '').join('')), unknown };
}

/**
 * May `text` stand in a zone as `zoneText`, by any of the permitted forms? A zone cuts what does not fit.
 */
export function mayStandAs(text, zoneText) {
  const wanted = squeezed(zoneText).replaceAll(' ', '');
  let places = new Set([0]);
  for (const letter of text.normalize('NFC').toUpperCase().normalize('NFC')) {
    const next = new Set();
    for (const form of formsOf(letter) ?? []) {
      const piece = form.trim();
      for (const at of places) {
        const left = wanted.slice(at);
        if (left.startsWith(piece) || piece.startsWith(left)) next.add(Math.min(at + piece.length, wanted.length));
      }
    }
    places = next;
  }
  return places.has(wanted.length);
}
