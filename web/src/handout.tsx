// The configuration of a WireGuard device, as a QR code and a file.
import type { ComponentChildren } from 'preact'
import { saveFile } from './api'
import { QrCode } from './qr'
import { copyText, useKept } from './secretonce'
import { t } from './texts'
import { Button, Dialog, Notice } from './ui'
import { fileName } from './wireguard'

interface HandoutProps {
  name: string
  text: string
  once?: boolean // false where the text has no private key, which cannot be shown again
  unkept: string // what is lost if it is closed before it has been kept
  copies?: boolean // whether there is a button to copy it
  onClose: () => void
  children?: ComponentChildren // what changes the text
}
export function Handout({
  name,
  text,
  once = true,
  unkept,
  copies,
  onClose,
  children,
}: HandoutProps) {
  const { keep, close } = useKept({ once, title: t('peer.unkept'), text: unkept, onClose })
  const copy = async () => {
    if (await copyText(text)) keep()
  }
  return (
    <Dialog title={t('peer.device', { name })} onClose={close} wide>
      {once && <Notice>{t('peer.once')}</Notice>}
      <div class="device">
        <QrCode text={text} label={t('peer.qr')} />
        <div>
          {children}
          <pre tabIndex={0} aria-label={t('peer.file')}>
            {text}
          </pre>
          <div class="row">
            <Button
              kind="primary"
              icon="download"
              onClick={() => (saveFile(fileName(name), new Blob([text])), keep())}
            >
              {t('peer.file')}
            </Button>
            {copies && <Button onClick={() => void copy()}>{t('peer.copy')}</Button>}
            <Button onClick={onClose}>{t('peer.done')}</Button>
          </div>
        </div>
      </div>
    </Dialog>
  )
}
