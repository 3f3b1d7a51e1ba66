// The texts about settings that cannot be read, in all languages. Loaded with the notice, which few visitors see.
import { fill, language } from '../texts'

const english = {
  advice:
    'Change nothing here before they are back. As root on the appliance, move the file away: mv {path} /root/. Then restore a backup, or take an earlier state from “ormelctl undo list” with “ormelctl undo NUMBER”.',
  backup: 'Restore a backup',
  binary: '{path} holds binary data.',
  folder: '{path} is a folder.',
  'no-file': '{path} is not a regular file, or far too large.',
  'no-section': '{path} has no section: it holds no settings.',
  title:
    'The settings of servers and tunnels cannot be read. They all look off here, whether they run or not.',
  unreadable: '{path} cannot be read.',
}
export type DamagedKey = keyof typeof english
type Texts = Readonly<Record<DamagedKey, string>>

export const damagedTexts: Readonly<Record<string, Texts>> = {
  en: english,
  de: {
    advice:
      'Ändern Sie hier nichts, bis sie wiederhergestellt sind. Verschieben Sie die Datei als root auf dem Gerät: mv {path} /root/. Stellen Sie dann eine Sicherung wieder her, oder mit „ormelctl undo NUMMER“ einen früheren Stand aus „ormelctl undo list“.',
    backup: 'Eine Sicherung wiederherstellen',
    binary: '{path} enthält Binärdaten.',
    folder: '{path} ist ein Ordner.',
    'no-file': '{path} ist keine gewöhnliche Datei oder viel zu groß.',
    'no-section': '{path} hat keinen Abschnitt und enthält damit keine Einstellungen.',
    title:
      'Die Einstellungen der Server und Tunnel können nicht gelesen werden. Hier sehen alle ausgeschaltet aus, ob sie laufen oder nicht.',
    unreadable: '{path} kann nicht gelesen werden.',
  },
  fr: {
    advice:
      'Ne changez rien ici avant qu’ils ne soient rétablis. En tant que root sur l’appareil, déplacez le fichier : mv {path} /root/. Restaurez ensuite une sauvegarde, ou un état antérieur de « ormelctl undo list » avec « ormelctl undo NUMÉRO ».',
    backup: 'Restaurer une sauvegarde',
    binary: '{path} contient des données binaires.',
    folder: '{path} est un dossier.',
    'no-file': '{path} n’est pas un fichier ordinaire, ou est beaucoup trop gros.',
    'no-section': '{path} n’a aucune section : il ne contient aucun réglage.',
    title:
      'Les réglages des serveurs et des tunnels sont illisibles. Ici, tous semblent désactivés, qu’ils fonctionnent ou non.',
    unreadable: '{path} est illisible.',
  },
}

const PATH = '/etc/config/vpn.conf'

// A text in the language of the user; undefined for a reason that these pages do not know.
export const td = (key: string): string | undefined => {
  const text = (damagedTexts[language.value] ?? english)[key as DamagedKey]
  return text && fill(text, { path: PATH })
}
